#include "Table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "StreamOrder.h"

namespace rtp_monitor {
namespace {

CStreamReport Stream(uint32_t aSsrc) {
    CStreamReport stream;
    stream.key.ipVersion = 4;
    stream.key.source = {10, 0, 0, 1};
    stream.key.destination = {10, 0, 0, 2};
    stream.key.sourcePort = 4000;
    stream.key.destinationPort = 5004;
    stream.key.ssrc = aSsrc;
    stream.clockRate = 8000;
    stream.expected = 100;
    stream.received = 100;
    return stream;
}

CReport Report(size_t aStreams) {
    CReport report;
    for (size_t i = 0; i < aStreams; ++i) {
        report.streams.push_back(Stream(static_cast<uint32_t>(i)));
    }
    return report;
}

std::vector<std::string> Lines(const std::string& aText) {
    std::istringstream text(aText);
    std::vector<std::string> lines;
    for (std::string sLine; std::getline(text, sLine);) {
        lines.push_back(sLine);
    }
    return lines;
}

size_t LongestLine(const std::string& aText) {
    size_t nLongest = 0;
    for (const std::string& sLine : Lines(aText)) {
        nLongest = std::max(nLongest, sLine.size());
    }
    return nLongest;
}

CTableStyle Style(size_t aColumns, size_t aRows = SIZE_MAX) {
    CTableStyle style;
    style.columns = aColumns;
    style.rows = aRows;
    return style;
}

TEST(Table, FitsEveryWidth_WhateverTheFigures) {
    CReport report = Report(3);
    report.streams[1].key.ipVersion = 6;
    report.streams[1].key.source.fill(0xAB);
    report.streams[1].key.destination.fill(0xCD);
    report.streams[1].silentUsec = ENDED_AFTER_USEC;
    report.streams[2].received = UINT64_MAX;
    report.streams[2].bytes = UINT64_MAX;
    report.streams[2].payloadName = "telephone-event";
    report.streams[2].jitterMs = 1e9;
    report.forgottenStreams = UINT64_MAX;
    report.skipped.fill(1000000);
    report.inputs.resize(1);
    report.inputs[0].name = "udp://[2001:db8:1111:2222:3333:4444:5555:6666]:65535";
    report.inputs[0].isSocket = true;
    for (size_t nColumns = 10; nColumns <= 400; ++nColumns) {
        EXPECT_LE(LongestLine(FormatTable(report, Style(nColumns))), nColumns);
    }
}

TEST(Table, LosesOneColumnAfterTheOther_WhenItGetsNarrower) {
    const CReport report = Report(2);
    size_t nColumnsBefore = SIZE_MAX;
    for (size_t nWidth = 400; nWidth >= 10; --nWidth) {
        std::istringstream title(Lines(FormatTable(report, Style(nWidth)))[0]);
        size_t nColumns = 0;
        for (std::string sWord; title >> sWord;) {
            ++nColumns;
        }
        EXPECT_LE(nColumns, nColumnsBefore) << nWidth;
        nColumnsBefore = nColumns;
    }
    EXPECT_NE(Lines(FormatTable(report, Style(20)))[0].find("loss"), std::string::npos);
}

TEST(Table, CountsWhatItLeavesOut_WhateverTheHeight) {
    const CReport report = Report(20);
    for (size_t nRows = 1; nRows <= 30; ++nRows) {
        const std::vector<std::string> lines = Lines(FormatTable(report, Style(80, nRows)));
        EXPECT_LE(lines.size(), nRows);
        const auto nShown = std::count_if(lines.begin(), lines.end(), [](const std::string& aLine) {
            return aLine.compare(0, 8, "10.0.0.1") == 0;
        });
        if (nRows >= 3 && nShown < 20) {
            EXPECT_EQ(lines[static_cast<size_t>(nShown) + 1],
                      "and " + std::to_string(20 - nShown) + " more streams");
        }
    }
}

TEST(Table, OnlyCountsStreamsThatAgedOut_UntilTheEnd) {
    CReport report = Report(3);
    report.streams[0].silentUsec = ENDED_AFTER_USEC - 1;
    report.streams[1].silentUsec = AGED_OUT_AFTER_USEC - 1;
    report.streams[2].silentUsec = AGED_OUT_AFTER_USEC;
    std::vector<std::string> lines = Lines(FormatTable(report, CTableStyle()));
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[1].find("ended"), std::string::npos);
    EXPECT_NE(lines[2].find("ended 00000001"), std::string::npos);
    EXPECT_EQ(lines[3], "and 1 stream that has ended");
    report.isFinal = true;
    lines = Lines(FormatTable(report, CTableStyle()));
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_NE(lines[3].find("ended 00000002"), std::string::npos);
}

TEST(Table, ColoursFiguresBeyondTheLimitsAlone) {
    CReport report = Report(4);
    report.streams[0].lost = 1;
    report.streams[1].lost = 2;
    report.streams[2].jitterMs = JITTER_LIMIT_MS;
    report.streams[3].jitterMs = JITTER_LIMIT_MS + 1;
    CTableStyle style;
    EXPECT_EQ(FormatTable(report, style).find('\033'), std::string::npos);
    style.colour = true;
    const std::vector<std::string> lines = Lines(FormatTable(report, style));
    EXPECT_EQ(lines[1].find('\033'), std::string::npos);
    EXPECT_NE(lines[2].find("\033[1;31m  2.0%\033[0m"), std::string::npos);
    EXPECT_EQ(lines[3].find('\033'), std::string::npos);
    EXPECT_NE(lines[4].find("\033[1;31m  31.00\033[0m"), std::string::npos);
}

TEST(Table, FoldsLinesBetweenWords) {
    EXPECT_EQ(FoldLines("one two three\nfour\n", 7), "one two\nthree\nfour\n");
    EXPECT_EQ(FoldLines("one two\n", 7), "one two\n");
    EXPECT_EQ(FoldLines("see /a/long/path now\n", 6), "see\n/a/long/path\nnow\n");
    EXPECT_EQ(FoldLines("a b c d\n", 1), "a\nb\nc\nd\n");
    EXPECT_EQ(FoldLines("", 5), "");
}

TEST(StreamOrder, PutsDoubtfulStreamsLastAndEqualOnesByAddress) {
    std::vector<CStreamReport> streams = {Stream(3), Stream(1), Stream(2), Stream(4)};
    streams[0].lost = 50;
    streams[0].isDoubtful = true;
    streams[3].jitterMs = JITTER_LIMIT_MS / 2;
    SortStreams(ESort::WORST, &streams);
    std::vector<uint32_t> ssrcs;
    ssrcs.reserve(streams.size());
    for (const CStreamReport& stream : streams) {
        ssrcs.push_back(stream.key.ssrc);
    }
    EXPECT_EQ(ssrcs, (std::vector<uint32_t>{4, 1, 2, 3}));
}

}  // namespace
}  // namespace rtp_monitor
