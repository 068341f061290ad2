#include "CmFlightReader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

// What a file may have at most, so that no file makes a reader take memory beyond bounds. Those of
// the library have fewer.
constexpr uint32_t MOST_CLASSES = 4096;
constexpr int READINGS = 8;  // of figures that are being written

unsigned long long Printed(uint64_t aNumber) {
    return aNumber;
}

}  // namespace

int64_t CmFlightUsec(uint64_t aUsec) {
    return static_cast<int64_t>(std::min<uint64_t>(aUsec, CM_FLIGHT_LAST_USEC));
}

std::string CmFlightText(const char* aText, size_t aRoom) {
    return std::string(aText, std::find(aText, aText + aRoom, '\0'));
}

CCmFlightReader::~CCmFlightReader() {
    if (m_nFile >= 0) {
        close(m_nFile);
    }
}

bool CCmFlightReader::Fail(const std::string& aWhat) {
    m_strError = CmPrintable(m_strPath) + ": " + aWhat;
    return false;
}

bool CCmFlightReader::ReadAt(uint64_t aOffset, void* aOut, uint64_t aSize) {
    uint64_t ullDone = 0;
    while (ullDone < aSize) {
        const ssize_t nRead = pread(m_nFile, static_cast<char*>(aOut) + ullDone, aSize - ullDone,
                                    static_cast<off_t>(aOffset + ullDone));
        if (nRead > 0) {
            ullDone += static_cast<uint64_t>(nRead);
        } else if (nRead == 0) {
            return Fail(CmFormat("it is cut after %llu bytes", Printed(aOffset + ullDone)));
        } else if (errno != EINTR) {
            return Fail(std::strerror(errno));
        }
    }
    return true;
}

bool CCmFlightReader::Open(const std::string& aPath) {
    m_strPath = aPath;
    // Without a wait for who writes to a pipe.
    m_nFile = open(aPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_nFile < 0) {
        return Fail(std::strerror(errno));
    }
    struct stat status = {};
    if (fstat(m_nFile, &status) != 0) {
        return Fail(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return Fail("it is not a regular file");
    }
    return Read();
}

bool CCmFlightReader::Read() {
    m_Header = {};
    if (!ReadAt(0, &m_Header, sizeof(m_Header)) || !CheckHeader()) {
        return false;
    }
    const bool bFree = flock(m_nFile, LOCK_SH | LOCK_NB) == 0;
    const bool bLive = !bFree && errno == EWOULDBLOCK;
    if (bFree) {
        flock(m_nFile, LOCK_UN);
    }
    m_eState = bLive ? EState::LIVE : m_Header.m_ullEndWall != 0 ? EState::ENDED : EState::KILLED;
    return ReadClasses();
}

bool CCmFlightReader::CheckHeader() {
    const CCmFlightHeader& header = m_Header;
    if (std::memcmp(header.m_achMagic, CM_FLIGHT_MAGIC, sizeof(CM_FLIGHT_MAGIC)) != 0) {
        return Fail("it is not a flight recorder's file");
    }
    if (header.m_dwVersion != CM_FLIGHT_VERSION) {
        return Fail(CmFormat("it is of version %u, which is not known here", header.m_dwVersion));
    }
    const uint64_t ullRing = uint64_t{header.m_dwUnitCount} * sizeof(CCmFlightUnit);
    const bool bSizes = header.m_dwClassSize == sizeof(CCmFlightClass) &&
                        header.m_dwUnitSize == sizeof(CCmFlightUnit) &&
                        header.m_dwHeaderSize >= sizeof(CCmFlightHeader) &&
                        header.m_dwRingOffset >= sizeof(CCmFlightSlot) &&
                        header.m_dwSlotSize >= header.m_dwRingOffset + ullRing;
    const bool bCounts = header.m_dwClassCount <= MOST_CLASSES &&
                         header.m_dwSlotCount <= CM_FLIGHT_MOST_SLOTS && header.m_dwUnitCount > 0 &&
                         header.m_dwUnitCount <= CM_FLIGHT_MOST_UNITS &&
                         (header.m_dwUnitCount & (header.m_dwUnitCount - 1)) == 0;
    if (!bSizes || !bCounts) {
        return Fail("it is damaged: sizes in its header are out of range");
    }
    // In 64 bits none of these sums wraps, the offset being looked at first.
    const uint64_t ullClasses = uint64_t{header.m_dwClassCount} * header.m_dwClassSize;
    const uint64_t ullSlots = uint64_t{header.m_dwSlotCount} * header.m_dwSlotSize;
    if (header.m_ullSlotsOffset < header.m_dwHeaderSize + ullClasses ||
        header.m_ullSlotsOffset > static_cast<uint64_t>(CM_FLIGHT_LAST_USEC) ||
        header.m_ullSlotsOffset + ullSlots != header.m_ullFileSize) {
        return Fail("it is damaged: the parts in its header do not fit together");
    }
    return true;
}

bool CCmFlightReader::CheckSize() {
    struct stat status = {};
    if (fstat(m_nFile, &status) != 0) {
        return Fail(std::strerror(errno));
    }
    const uint64_t ullSize = static_cast<uint64_t>(status.st_size);
    return ullSize >= m_Header.m_ullFileSize ||
           Fail(CmFormat("it is cut after %llu bytes", Printed(ullSize)));
}

bool CCmFlightReader::ReadClasses() {
    std::vector<CCmFlightClass> classes(m_Header.m_dwClassCount);
    if (!ReadAt(m_Header.m_dwHeaderSize, classes.data(), classes.size() * sizeof(CCmFlightClass))) {
        return false;
    }
    m_RawNames.clear();
    m_Names.clear();
    for (const CCmFlightClass& entry : classes) {
        if (entry.m_dwState == CCmFlightClass::COMPLETE) {
            m_RawNames.emplace(entry.m_ullTable,
                               CmFlightText(entry.m_szName, sizeof(entry.m_szName)));
        }
    }
    return true;
}

uint64_t CCmFlightReader::SlotOffset(uint32_t aSlot) const {
    return m_Header.m_ullSlotsOffset + uint64_t{aSlot} * m_Header.m_dwSlotSize;
}

// Figures of a process that was killed while it wrote them stay as they are.
bool CCmFlightReader::ReadSlot(uint32_t aSlot, CCmFlightSlot* aOut) {
    if (aSlot >= m_Header.m_dwSlotCount) {
        return Fail(CmFormat("it has no slot %u", aSlot));
    }
    for (int i = 0; i < READINGS; ++i) {
        uint64_t ullCount = 0;
        const uint64_t ullOffset = SlotOffset(aSlot);
        if (!ReadAt(ullOffset, aOut, sizeof(*aOut)) ||
            !ReadAt(ullOffset + offsetof(CCmFlightSlot, m_ullFiguresCount), &ullCount,
                    sizeof(ullCount))) {
            return false;
        }
        // While a thread is given the slot, it seems to be free.
        const bool bWhole = ullCount % 2 == 0 && ullCount == aOut->m_ullFiguresCount &&
                            (aOut->m_dwState != CCmFlightSlot::FREE || aOut->m_ullWritten == 0);
        if (m_eState != EState::LIVE || bWhole) {
            return true;
        }
    }
    return true;
}

bool CCmFlightReader::ReadRing(uint32_t aSlot, uint64_t aMost, CCmFlightSlot* aOut, CRing* aRing) {
    if (!ReadSlot(aSlot, aOut)) {
        return false;
    }
    const uint64_t ullCount = m_Header.m_dwUnitCount;
    const uint64_t ullRingOffset = SlotOffset(aSlot) + m_Header.m_dwRingOffset;
    std::vector<CCmFlightUnit> ring(static_cast<size_t>(std::min(ullCount, aOut->m_ullWritten)));
    uint64_t ullWritten = 0;
    if (!ReadAt(ullRingOffset, ring.data(), ring.size() * sizeof(CCmFlightUnit)) ||
        !ReadAt(SlotOffset(aSlot) + offsetof(CCmFlightSlot, m_ullWritten), &ullWritten,
                sizeof(ullWritten))) {
        return false;
    }
    // What stands where the next unit goes may be half of that.
    const uint64_t ullEnd = aOut->m_ullWritten;
    ullWritten = std::max(ullWritten, ullEnd);
    const uint64_t ullWhole = ullWritten >= ullCount ? ullWritten - ullCount + 1 : 0;
    const uint64_t ullLimit = ullEnd > aMost ? ullEnd - aMost : 0;
    aRing->isLimited = ullLimit > ullWhole;
    aRing->first = std::min(std::max(ullWhole, ullLimit), ullEnd);
    aRing->units.clear();
    aRing->units.reserve(static_cast<size_t>(ullEnd - aRing->first));
    for (uint64_t n = aRing->first; n < ullEnd; ++n) {
        aRing->units.push_back(ring[static_cast<size_t>(n % ullCount)]);
    }
    return true;
}

std::string CCmFlightReader::Process() const {
    return CmFlightText(m_Header.m_szProcess, sizeof(m_Header.m_szProcess));
}

int64_t CCmFlightReader::LastUsec() const {
    const uint64_t ullLast =
        m_Header.m_ullEndWall != 0 ? m_Header.m_ullEndWall : m_Header.m_ullTickWall;
    return std::max(CmFlightUsec(ullLast), StartUsec());
}

std::string CCmFlightReader::ClassOf(uint64_t aTable) {
    const auto raw = m_RawNames.find(aTable);
    if (raw == m_RawNames.end() || raw->second.empty()) {
        return CmFormat("0x%llx", Printed(aTable));
    }
    const auto known = m_Names.try_emplace(aTable);
    if (known.second) {
        known.first->second = CmClassName(raw->second);
    }
    return known.first->second;
}

}  // namespace UTIL_NS
