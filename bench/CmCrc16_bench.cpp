// CRC-16 over buffers of several sizes.

#include "CmUtilMisc.h"
#include "Row.h"
#if KELTO_WITH_BOOST
#include <boost/crc.hpp>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr unsigned short CHECK_VALUE = 0xBB3D;  // of "123456789"

unsigned short Ours(const std::string& aBytes) {
    unsigned short wCrc = 0;
    return CalcCRC16(wCrc, reinterpret_cast<unsigned char*>(const_cast<char*>(aBytes.data())),
                     static_cast<unsigned int>(aBytes.size()));
}

// The classic loop over one table of 256 entries.
unsigned short ByteWise(const std::string& aBytes) {
    static const auto s_table = [] {
        std::array<uint16_t, 256> table{};
        for (unsigned i = 0; i < table.size(); ++i) {
            unsigned nValue = i;
            for (int nBit = 0; nBit < 8; ++nBit) {
                nValue = (nValue & 1) != 0 ? nValue >> 1 ^ 0xA001 : nValue >> 1;
            }
            table[i] = static_cast<uint16_t>(nValue);
        }
        return table;
    }();
    uint16_t wCrc = 0;
    for (unsigned char byte : aBytes) {
        wCrc = static_cast<uint16_t>(wCrc >> 8 ^ s_table[(wCrc ^ byte) & 0xFF]);
    }
    return wCrc;
}

#if KELTO_WITH_BOOST
unsigned short Boost(const std::string& aBytes) {
    boost::crc_optimal<16, 0x8005, 0, 0, true, true> crc;
    crc.process_bytes(aBytes.data(), aBytes.size());
    return static_cast<unsigned short>(crc.checksum());
}
#endif

void AddRow(const char* aWork, size_t aSize, const char* aWho,
            unsigned short (*aCrc)(const std::string&)) {
    Row(std::string("CRC-16"), aWork, aWho, [=](benchmark::State& aState) {
        Check(aCrc("123456789") == CHECK_VALUE, "CRC-16 of 123456789");
        const std::string bytes = RandomBytes(aSize);
        const unsigned short wExpected = ByteWise(bytes);
        for (auto _ : aState) {
            Touch(bytes.data());
            Check(aCrc(bytes) == wExpected, "CRC-16");
        }
        CountBytes(aState, aSize);
    });
}

const bool s_bAdded = [] {
    const std::pair<const char*, size_t> sizes[] = {
        {"64 B", 64}, {"1200 B", 1200}, {"64 KiB", 64 * 1024}};
    for (const auto& [pszWork, nSize] : sizes) {
        AddRow(pszWork, nSize, OURS, Ours);
        AddRow(pszWork, nSize, "floor: byte by byte", ByteWise);
#if KELTO_WITH_BOOST
        AddRow(pszWork, nSize, "Boost.CRC", Boost);
#endif
    }
    return true;
}();

}  // namespace
