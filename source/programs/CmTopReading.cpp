#include "CmTopReading.h"

#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

CCmTopLengths LengthsOf(const CCmFlightSpread& aSpread) {
    CCmTopLengths lengths;
    lengths.count = aSpread.m_ullCount;
    lengths.median = aSpread.m_ullMedian;
    lengths.percent99 = aSpread.m_ull99;
    lengths.permille999 = aSpread.m_ull999;
    lengths.longest = aSpread.m_ullLongest;
    return lengths;
}

CCmTopWorker WorkerOf(CCmFlightReader& aReader, const CCmFlightSlot& aSlot) {
    const CCmFlightFigures& figures = aSlot.m_Figures;
    CCmTopWorker worker;
    worker.name = CmFlightText(aSlot.m_szName, sizeof(aSlot.m_szName));
    worker.number = aSlot.m_dwNumber;
    worker.thread = aSlot.m_ullThread;
    worker.isEnded = aSlot.m_dwState == CCmFlightSlot::ENDED;
    worker.usec = CmFlightUsec(aSlot.m_ullFiguresWall);
    worker.posted = figures.m_ullPosted;
    worker.run = figures.m_ullRun;
    worker.refused = figures.m_ullRefused;
    worker.unfired = figures.m_ullUnfired;
    worker.pending = figures.m_ullPending;
    worker.mostPending = figures.m_ullMostPending;
    worker.eventsUsec = figures.m_ullEventsUsec;
    worker.timersUsec = figures.m_ullTimersUsec;
    worker.asleepUsec = figures.m_ullAsleepUsec;
    worker.timers = figures.m_ullTimers;
    worker.sends = figures.m_ullSends;
    worker.running = LengthsOf(figures.m_RunTime);
    worker.waiting = LengthsOf(figures.m_WaitingTime);
    worker.late = LengthsOf(figures.m_TimerLateness);
    worker.blocked = LengthsOf(figures.m_BlockedSends);
    if (figures.m_ullLongestTable != 0) {
        worker.longestClass = aReader.ClassOf(figures.m_ullLongestTable);
    }
    if (!worker.isEnded && aSlot.m_ullCurrentTable != 0) {
        worker.currentClass = aReader.ClassOf(aSlot.m_ullCurrentTable);
        worker.currentUsec = CmFlightUsec(aSlot.m_ullCurrentStart);
    }
    return worker;
}

}  // namespace

bool CmReadFigures(CCmFlightReader& aReader, CCmTopReading* aReading) {
    *aReading = CCmTopReading();
    aReading->process = aReader.Process();
    aReading->pid = aReader.ProcessId();
    aReading->path = aReader.Path();
    aReading->startUsec = aReader.StartUsec();
    aReading->state = aReader.State() == CCmFlightReader::EState::LIVE    ? ECmTopState::LIVE
                      : aReader.State() == CCmFlightReader::EState::ENDED ? ECmTopState::ENDED
                                                                          : ECmTopState::KILLED;
    aReading->usec = aReading->state == ECmTopState::LIVE ? CmNowUsec() : aReader.LastUsec();
    for (uint32_t i = 0; i < aReader.SlotCount(); ++i) {
        CCmFlightSlot slot = {};
        if (!aReader.ReadSlot(i, &slot)) {
            return false;
        }
        const bool bShown =
            slot.m_dwState == CCmFlightSlot::LIVE ||
            (slot.m_dwState == CCmFlightSlot::ENDED && aReading->state != ECmTopState::LIVE);
        if (bShown && slot.m_ullFiguresWall != 0) {
            aReading->workers.push_back(WorkerOf(aReader, slot));
        }
    }
    return true;
}

}  // namespace UTIL_NS
