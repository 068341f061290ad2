// The terminal while kelto-top has it: the second screen, keys as they are typed, and everything as
// it was before at any end that a process can see coming.
#ifndef CM_TOP_SCREEN_H
#define CM_TOP_SCREEN_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace UTIL_NS {

// Standard input and output are a terminal that can be cleared. At most one at a time, as it
// handles the process's signals.
class CCmTopScreen {
  public:
    static bool IsThere();

    // Switches to the second screen.
    CCmTopScreen();
    // Back to the first one.
    ~CCmTopScreen();
    CCmTopScreen(const CCmTopScreen&) = delete;
    CCmTopScreen& operator=(const CCmTopScreen&) = delete;

    // As they are now, at least 1.
    size_t Columns() const;
    size_t Rows() const;

    // Lines in place of what is there. False: the terminal is gone.
    bool Show(const std::string& aLines);

    enum class EWhat { TIME, KEY, SIZE, END };
    // Waits for a key, given in aKey; for another size of the terminal; for a signal that ends the
    // process, which Signal then tells; at most for aUsec.
    EWhat Wait(int64_t aUsec, char* aKey);
    // The signal that END was about; 0 when it was the end of the input.
    static int Signal();
};

}  // namespace UTIL_NS

#endif  // CM_TOP_SCREEN_H
