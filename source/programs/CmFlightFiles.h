// The recorders' files of this user: where they lie, of which processes, which of them still run.
#ifndef CM_FLIGHT_FILES_H
#define CM_FLIGHT_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace UTIL_NS {

// What the name of a file tells, and who holds it.
struct CCmFlightFile {
    std::string path;
    std::string process;
    uint64_t pid = 0;
    int64_t startUsec = 0;  // wall clock
    bool isLive = false;    // its writer has it locked
};

// Where recorders keep their files unless the host says otherwise.
std::string CmFlightDirectory();

// The files of this user in aDirectory, the newest first. False, and one line in aError: it cannot
// be read, or is not this user's. A directory that is not there holds no files.
bool CmListFlightFiles(const std::string& aDirectory, std::vector<CCmFlightFile>* aFiles,
                       std::string* aError);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_FILES_H
