// kelto-top reads any bytes as a recording: its table fits a terminal of any size, its JSON is
// JSON, in any order of the workers, and what is wrong is said in one line.
#include <algorithm>

#include "../FlightFile.h"
#include "CmFlightReader.h"
#include "CmProgramText.h"
#include "CmTopReading.h"
#include "CmTopTable.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

constexpr size_t ORDERS = 16;

void CheckError(const std::string& aError) {
    Require(!aError.empty() && aError.find('\n') == std::string::npos, "an error is one line");
    Require(kelto_fuzz::IsPrintable(aError), "an error is text");
}

void CheckTable(const CCmTopReading& aReading, const CCmTopOrder& aOrder, size_t aColumns,
                size_t aRows) {
    std::string sTable = CmTopTable(aReading, aOrder, aColumns, aRows, false);
    Require(kelto_fuzz::IsPrintable(sTable), "the table is text");
    Require(static_cast<size_t>(std::count(sTable.begin(), sTable.end(), '\n')) ==
                std::min(aReading.workers.size() + 2, aRows),
            "a line for each worker that fits");
    for (size_t n = 0; n < sTable.size();) {
        const size_t nEnd = sTable.find('\n', n);
        Require(CmColumns(std::string_view(sTable).substr(n, nEnd - n)) <= aColumns,
                "lines are not wider than the terminal");
        n = nEnd + 1;
    }
}

void CheckReading(const CCmTopReading& aReading, const CCmTopOrder& aOrder) {
    for (const CCmTopWorker& worker : aReading.workers) {
        Require(worker.busy >= 0 && worker.busy <= 1, "nobody is busier than all the time");
        Require(worker.eventsPerSec >= 0 && worker.timersPerSec >= 0, "rates are not negative");
    }
    const std::string sJson = CmTopJson(aReading, aOrder);
    Require(kelto_fuzz::IsPrintable(sJson) && kelto_fuzz::IsJson(sJson), "the JSON is JSON");
    Require(sJson.find('\n') == std::string::npos, "it is one line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("recording");
    kelto_fuzz::Input input(aData, aSize);
    const size_t nColumns = input.Byte();
    const size_t nRows = input.Byte();
    CCmTopOrder order;
    order.column = nRows % ORDERS;
    order.isReversed = nColumns % 2 != 0;
    const std::string sFile = kelto_fuzz::FlightFile(input);
    file.SetContent(sFile);
    CCmFlightReader reader;
    CCmTopReading before;
    if (!reader.Open(file.path()) || !CmReadFigures(reader, &before)) {
        CheckError(reader.Error());
        return 0;
    }
    CheckReading(before, order);
    CheckTable(before, order, nColumns, nRows);
    // The process goes on: the second half of what it wrote is other bytes.
    std::string sLater = sFile;
    for (size_t i = sLater.size() / 2; i < sLater.size(); ++i) {
        sLater[i] = static_cast<char>(sLater[i] + 1);
    }
    file.SetContent(sLater);
    CCmTopReading now;
    if (!reader.Read() || !CmReadFigures(reader, &now)) {
        CheckError(reader.Error());
        return 0;
    }
    CmRateWorkers(before, &now);
    CheckReading(now, order);
    CheckTable(now, order, nColumns, nRows);
    return 0;
}
