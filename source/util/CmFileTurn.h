// Files that several threads of the process lock against other processes; internal.
//
// The system's record locks belong to the process: its threads do not exclude each other, and
// closing any descriptor of a file takes every lock of the process off it. So each file that is
// open here, under whatever names, has a turn (a lock among the threads). A thread has it from
// before it asks for the file's lock until it has released that. A file that others close meanwhile
// is closed when the turn is given back. Nothing here waits for anything but the turn of a file.
#ifndef CM_FILE_TURN_H
#define CM_FILE_TURN_H

#include <cstdio>

namespace UTIL_NS {

// Opens aPath for reading and writing, creates it if missing and keeps what it holds. Null when it
// cannot be opened or memory ran out. aDescriptor: that of the stream, which owns it.
FILE* CmOpenTurnFile(const char* aPath, int& aDescriptor);

// Closes what CmOpenTurnFile opened, at the latest when every thread that has taken a turn through
// aStream, or waits for one, has given it back. Waits for none of them.
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
    bool IsHeld() const { return m_pOpening != nullptr; }

  private:
    CCmTurnOpening* const m_pOpening;
};

}  // namespace UTIL_NS

#endif  // CM_FILE_TURN_H
