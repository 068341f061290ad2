// The snapshot that answers for the main configuration file on one thread; internal.
#ifndef CM_MAIN_SNAPSHOT_H
#define CM_MAIN_SNAPSHOT_H

#include <string_view>

namespace UTIL_NS {

// While an object lives, look-ups of its thread in the main configuration file ask it rather than
// the file.
class CCmMainSnapshot {
  public:
    CCmMainSnapshot();
    CCmMainSnapshot(const CCmMainSnapshot&) = delete;
    CCmMainSnapshot& operator=(const CCmMainSnapshot&) = delete;

    // Null when the file is to be read.
    static CCmMainSnapshot* Current();

    // The value as get_string_from_profile has it; false when the key is absent.
    virtual bool Find(std::string_view aSection, std::string_view aKey,
                      std::string_view& aValue) = 0;

  protected:
    ~CCmMainSnapshot();

  private:
    CCmMainSnapshot* const m_pPrevious;
};

}  // namespace UTIL_NS

#endif  // CM_MAIN_SNAPSHOT_H
