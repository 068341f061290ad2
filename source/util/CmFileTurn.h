// Files that several threads of the process lock against other processes; internal.
//
// The system's record locks belong to the process: its threads do not exclude each other, and
// closing any descriptor of a file takes every lock of the process off it. So each file (whatever
// its names) that is open here has a turn, which a thread takes for as long as it asks for the
// file's lock and holds it. A file that is closed meanwhile is closed when the turn ends. Nothing
// waits here but for the turn of a file.
#ifndef CM_FILE_TURN_H
#define CM_FILE_TURN_H

#include <cstdio>

namespace UTIL_NS {

// Opens aPath for reading and writing, creates it if missing and keeps what it holds. Null when it
// cannot be opened or memory ran out. aDescriptor: that of the stream, which owns it.
FILE* CmOpenTurnFile(const char* aPath, int& aDescriptor);

// Closes what CmOpenTurnFile opened, at the latest when the turns that threads have taken or wait
// for through aStream have ended. Waits for none of them.
void CmCloseTurnFile(FILE* aStream);

struct CCmTurnOpening;

// The turn of the file that aStream is open on, from construction to destruction.
class CCmFileTurn {
  public:
    // Waits for the thread that has it. aStream: of CmOpenTurnFile.
    explicit CCmFileTurn(FILE* aStream);
    ~CCmFileTurn();
    CCmFileTurn(const CCmFileTurn&) = delete;
    CCmFileTurn& operator=(const CCmFileTurn&) = delete;

    // False when aStream has been closed; otherwise it stays open while the turn lives.
    bool held() const { return m_pOpening != nullptr; }

  private:
    CCmTurnOpening* const m_pOpening;
};

}  // namespace UTIL_NS

#endif  // CM_FILE_TURN_H
