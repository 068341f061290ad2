// kelto-flight reads any bytes as a recording: what it prints is text, JSON and XML, its records
// are in order and as many as the filters leave, and what is wrong is said in one line.
#include <algorithm>

#include "../FlightFile.h"
#include "CmFlightOutput.h"
#include "CmFlightReader.h"
#include "CmFlightRecords.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

typedef void (*Printer)(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                        ICmTextSink& aSink);

class CText final : public ICmTextSink {
  public:
    void Put(std::string_view aText) override { text += aText; }
    std::string text;
};

std::string Printed(Printer aPrinter, CCmFlightReader& aReader, const CCmFlightRecords& aRecords) {
    CText text;
    aPrinter(aReader, aRecords, text);
    return text.text;
}

void CheckError(const std::string& aError) {
    Require(aError.find('\n') == std::string::npos, "an error is one line");
    Require(kelto_fuzz::IsPrintable(aError), "an error is text");
}

void CheckRecords(const CCmFlightRecords& aRecords) {
    int64_t llUsec = 0;
    for (size_t i = 0; i < aRecords.records.size(); ++i) {
        const CCmFlightRecord& record = aRecords.records[i];
        Require(record.usec >= llUsec, "records are in the order of their times");
        Require(record.thread < aRecords.threads.size(), "a record is of a thread");
        Require(record.length >= 0 || record.kind == ECmRecord::STEP, "lengths are not negative");
        Require(CmEndOf(record) <= aRecords.lastUsec, "nothing ends after the end");
        Require(record.kind != ECmRecord::LINE || record.text < aRecords.texts.size(),
                "a line has a text");
        Require(record.post == CM_NO_RECORD ||
                    (record.post < i && aRecords.records[record.post].kind == ECmRecord::POST),
                "a post stands before its event");
        llUsec = record.usec;
    }
}

// Without those of the head.
size_t LinesOf(const std::string& aText) {
    size_t nLines = 0;
    for (size_t n = 0; n < aText.size(); n = aText.find('\n', n) + 1) {
        nLines += aText[n] == '#' && aText[n + 1] == ' ' ? 0 : 1;
    }
    return nLines;
}

void CheckPrinted(CCmFlightReader& aReader, const CCmFlightRecords& aRecords) {
    const std::string sLines = Printed(CmPrintRecords, aReader, aRecords);
    const auto nShown =
        std::count_if(aRecords.records.begin(), aRecords.records.end(),
                      [](const CCmFlightRecord& aRecord) { return aRecord.isShown; });
    Require(LinesOf(sLines) == static_cast<size_t>(nShown), "a line for each record");
    Require(kelto_fuzz::IsPrintable(sLines), "the lines are text");
    const std::string sThreads = Printed(CmPrintThreads, aReader, aRecords);
    Require(LinesOf(sThreads) == aRecords.threads.size(), "a line for each thread");
    Require(kelto_fuzz::IsPrintable(sThreads), "the threads are text");
    const std::string sJson = Printed(CmPrintTimeline, aReader, aRecords);
    Require(kelto_fuzz::IsPrintable(sJson) && kelto_fuzz::IsJson(sJson), "the timeline is JSON");
    const std::string sPicture = Printed(CmPrintPicture, aReader, aRecords);
    Require(kelto_fuzz::IsPrintable(sPicture), "the picture is text");
    Require(std::count(sPicture.begin(), sPicture.end(), '<') ==
                std::count(sPicture.begin(), sPicture.end(), '>'),
            "tags are whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("recording");
    kelto_fuzz::Input input(aData, aSize);
    const unsigned uFilter = input.Byte();
    file.SetContent(kelto_fuzz::FlightFile(input));
    CCmFlightReader reader;
    if (!reader.Open(file.path())) {
        Require(!reader.Error().empty(), "a refusal has a reason");
        CheckError(reader.Error());
        return 0;
    }
    CCmFlightRecords records = CmReadRecords(reader);
    CheckError(records.error);
    CheckRecords(records);
    CCmFlightFilter filter;
    if ((uFilter & 1) != 0) {
        filter.kinds.push_back(static_cast<ECmRecord>(uFilter >> 1 & 7));
    }
    if ((uFilter & 0x10) != 0 && !records.threads.empty()) {
        filter.threads.push_back(records.threads.back().name);
    }
    if ((uFilter & 0x20) != 0) {
        filter.fromUsec = reader.StartUsec() + 100;
        filter.toUsec = reader.StartUsec() + 10000;
    }
    CmFilterRecords(filter, &records);
    CheckPrinted(reader, records);
    return 0;
}
