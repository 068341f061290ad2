// Reads a flight recorder's file, of a process that runs, has ended or was killed, into structures
// that were looked at. The file is anybody's bytes, and may be cut or grow meanwhile: nothing in it
// is gone by before it was compared with what there is, and memory stays bounded.
#ifndef CM_FLIGHT_READER_H
#define CM_FLIGHT_READER_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "CmFlightFormat.h"

namespace UTIL_NS {

// Times and lengths beyond are taken for this one, so that sums of some of them are in range.
constexpr int64_t CM_FLIGHT_LAST_USEC = INT64_C(1) << 56;
// Of a time or a length in a file.
int64_t CmFlightUsec(uint64_t aUsec);

class CCmFlightReader {
  public:
    enum class EState { LIVE, ENDED, KILLED };

    // The units of a ring that are whole, the oldest first.
    struct CRing {
        uint64_t first = 0;  // how many units the ring had before
        std::vector<CCmFlightUnit> units;
        bool isLimited = false;  // there are older ones, which would have been too many
    };

    CCmFlightReader() = default;
    ~CCmFlightReader();
    CCmFlightReader(const CCmFlightReader&) = delete;
    CCmFlightReader& operator=(const CCmFlightReader&) = delete;

    // Each returns false where the file is not as it has to be; Error then says what is wrong, in
    // one line without its end. Read and ReadSlot are for calling again, as what they read changes.
    bool Open(const std::string& aPath);
    bool Read();  // header, state and classes; Open does it as well
    bool ReadSlot(uint32_t aSlot, CCmFlightSlot* aOut);
    // The last units, at most aMost.
    bool ReadRing(uint32_t aSlot, uint64_t aMost, CCmFlightSlot* aOut, CRing* aRing);
    bool CheckSize();  // whether the file is as long as it says
    const std::string& Error() const { return m_strError; }

    const std::string& Path() const { return m_strPath; }
    EState State() const { return m_eState; }
    uint32_t SlotCount() const { return m_Header.m_dwSlotCount; }
    uint64_t ProcessId() const { return m_Header.m_dwProcessId; }
    std::string Process() const;
    int64_t StartUsec() const { return CmFlightUsec(m_Header.m_ullStartWall); }
    // When it ended, or else when its figures were last written, not before the start.
    int64_t LastUsec() const;
    uint64_t LostClasses() const { return m_Header.m_ullLostClasses; }
    uint64_t UnslottedThreads() const { return m_Header.m_ullUnslottedCount; }

    // The name as the class's source has it; the address of the table where that is all there is.
    std::string ClassOf(uint64_t aTable);

  private:
    bool Fail(const std::string& aWhat);
    bool ReadAt(uint64_t aOffset, void* aOut, uint64_t aSize);
    bool CheckHeader();
    bool ReadClasses();
    uint64_t SlotOffset(uint32_t aSlot) const;

    int m_nFile = -1;
    std::string m_strPath;
    std::string m_strError;
    EState m_eState = EState::LIVE;
    CCmFlightHeader m_Header = {};
    std::unordered_map<uint64_t, std::string> m_RawNames;  // by table, as in the file
    std::unordered_map<uint64_t, std::string> m_Names;     // likewise, of those asked for, as given
};

// A text in an array that it may fill.
std::string CmFlightText(const char* aText, size_t aRoom);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_READER_H
