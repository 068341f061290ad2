// The recorders' files of this user: where they lie, of which processes, which of them still run.
#ifndef CM_RECORDINGS_H
#define CM_RECORDINGS_H

#include <cstdint>
#include <string>
#include <vector>

namespace UTIL_NS {

// What the name of a file tells, and who holds it.
struct CCmRecording {
    std::string path;
    std::string process;
    uint64_t pid = 0;
    int64_t startUsec = 0;  // wall clock
    bool isLive = false;    // its writer has it locked
};

// Where recorders keep their files unless the host says otherwise.
std::string CmRecordingDirectory();

// The files of this user in aDirectory, the newest first. False, and one line in aError: it cannot
// be read, or is not this user's. A directory that is not there holds no files.
bool CmListRecordings(const std::string& aDirectory, std::vector<CCmRecording>* aFiles,
                      std::string* aError);

}  // namespace UTIL_NS

#endif  // CM_RECORDINGS_H
