#include "CaptureReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace rtp_monitor {
namespace {

typedef std::vector<unsigned char> Bytes;
// Where a frame lies in the file, and all else that is known of it.
typedef std::tuple<size_t, uint32_t, uint32_t, uint32_t, int64_t> Frame;

struct CResult {
    std::vector<Frame> frames;
    std::string error;
    size_t taken = 0;

    bool operator==(const CResult& aRight) const {
        return frames == aRight.frames && error == aRight.error;
    }
};

// Reads aFile in pieces of aMin to aMax bytes more than are needed to go on.
CResult ReadInPieces(const Bytes& aFile, size_t aMin, size_t aMax, std::mt19937* aChance) {
    CResult result;
    CCaptureReader reader;
    size_t nThere = 0;
    while (true) {
        // A copy of exactly what is there, so that an address sanitizer sees a byte read too many.
        const size_t nHere = std::min(nThere - result.taken, size_t{CCaptureReader::MAX_RECORD});
        const auto start = aFile.begin() + static_cast<long>(result.taken);
        const Bytes there(start, start + static_cast<long>(nHere));
        uint32_t dwTaken = 0;
        CCaptureRecord record;
        const auto next =
            reader.Next(there.data(), static_cast<uint32_t>(there.size()), &dwTaken, &record);
        if (next == CCaptureReader::EResult::BAD) {
            result.error = reader.error();
            return result;
        }
        if (next == CCaptureReader::EResult::MORE) {
            EXPECT_GT(reader.needed(), nHere);
            EXPECT_LE(reader.needed(), CCaptureReader::MAX_RECORD);
            if (nThere == aFile.size()) {
                return result;
            }
            nThere = std::min(aFile.size(), nThere + aMin + (*aChance)() % (aMax - aMin + 1));
            continue;
        }
        if (next == CCaptureReader::EResult::FRAME) {
            EXPECT_LE(record.offset + record.size, dwTaken);
            EXPECT_LE(record.size, record.wireSize);
            result.frames.emplace_back(result.taken + record.offset, record.size, record.wireSize,
                                       record.linkType, record.timeUsec);
        }
        EXPECT_LE(dwTaken, nHere);
        result.taken += dwTaken;
    }
}

Bytes Capture() {
    std::ifstream file(RTP_MONITOR_CAPTURE, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(CaptureReader, ReadsTheSame_WhateverTheSizeOfThePieces) {
    std::mt19937 chance(1);
    Bytes file = Capture();
    ASSERT_GT(file.size(), 100000U);
    file.resize(40000);
    const CResult whole = ReadInPieces(file, file.size(), file.size(), &chance);
    EXPECT_GT(whole.frames.size(), 50U);
    EXPECT_EQ(ReadInPieces(file, 1, 1, &chance), whole);
    EXPECT_EQ(ReadInPieces(file, 1, 5000, &chance), whole);
}

TEST(CaptureReader, StaysWithinTheFile_WhateverItHolds) {
    std::mt19937 chance(2);
    Bytes original = Capture();
    original.resize(4000);
    // The start of a pcapng file: its section and an interface.
    const Bytes start = {0x0A, 0x0D, 0x0D, 0x0A, 28,  0,   0,   0,   0x4D, 0x3C, 0x2B, 0x1A,
                         1,    0,    0,    0,    255, 255, 255, 255, 255,  255,  255,  255,
                         28,   0,    0,    0,    1,   0,   0,   0,   20,   0,    0,    0,
                         1,    0,    0,    0,    0,   0,   0,   0,   20,   0,    0,    0};
    int nErrors = 0;
    for (int i = 0; i < 20000; ++i) {
        Bytes file = original;
        if (i % 2 == 0) {
            file = start;
            for (int nBlock = 0; nBlock < 5; ++nBlock) {
                const unsigned char bySize = static_cast<unsigned char>(chance() % 24 * 4);
                Bytes block(std::max<size_t>(bySize, 12));
                std::generate(block.begin(), block.end(), [&] {
                    return static_cast<unsigned char>(chance() % 3 == 0 ? chance() : 0);
                });
                block[0] = static_cast<unsigned char>(chance() % 8);
                block[1] = block[2] = block[3] = 0;
                block[4] = bySize;
                block[5] = block[6] = block[7] = 0;
                file.insert(file.end(), block.begin(), block.end());
            }
        }
        for (uint32_t dwChange = chance() % 5; dwChange > 0; --dwChange) {
            file[chance() % file.size()] = static_cast<unsigned char>(chance());
        }
        nErrors += ReadInPieces(file, 1, file.size(), &chance).error.empty() ? 0 : 1;
    }
    EXPECT_GT(nErrors, 1000);
}

}  // namespace
}  // namespace rtp_monitor
