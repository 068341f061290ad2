// The files of flight recorders: where they lie, which of them are kept, and how one is made;
// internal.
#ifndef CM_FLIGHT_FILE_H
#define CM_FLIGHT_FILE_H

#include <cstddef>
#include <cstdint>

namespace UTIL_NS {

// How many files of processes that have ended are kept.
constexpr unsigned CM_FLIGHT_KEPT_FILES = 5;

struct CCmFlightFile {
    static constexpr size_t PATH_SIZE = 1024;

    int m_nFile = -1;
    // Of the file; where there is none, what the call that failed was about.
    char m_szPath[PATH_SIZE] = {};
    // That call, null for a directory that is not the user's alone; and its error.
    const char* m_pszCall = nullptr;
    int m_nError = 0;
};

// Makes a file of aSize zeros, all its blocks there, for the process aName and locks it for as long
// as its descriptor is open; before, removes files of processes that have ended, but for the
// newest. aDirectory: null or empty for the user's own:
//
//     $XDG_RUNTIME_DIR/kelto
//     kelto in the platform's directory for the user, where there is none of that name
//     $TMPDIR/kelto-UID or /tmp/kelto-UID
//
// which is made if it is missing. It must be a directory, no link, of the user, with permissions
// 0700. True: m_nFile is open.
bool CmFlightMakeFile(const char* aDirectory, const char* aName, long long aStartUsec,
                      uint64_t aSize, CCmFlightFile& aFile);
// Removes a file that was just made and cannot be used.
void CmFlightRemoveFile(CCmFlightFile& aFile);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_FILE_H
