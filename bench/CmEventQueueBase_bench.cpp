// Events posted and sent to a worker thread.

#include "CmEventQueueBase.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CmWatch.h"
#include "Row.h"
#include "Workers.h"

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "events";
constexpr int64_t BATCH = 20000;          // events per iteration
constexpr char PROMISE[] = " + promise";  // after the name of a worker whose calls wait on one

// ---- Post to run.

template <typename Worker>
void PostBatch(Worker& aWorker, CTally& aTally, int64_t aCount) {
    for (int64_t i = 1; i <= aCount; ++i) {
        aWorker.Post(aTally, i);
    }
}

template <typename Worker>
void PostToRun(benchmark::State& aState, int aPosters, bool aTwoCores) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(aTwoCores);
    CTally tally;
    const int64_t nEach = BATCH / aPosters;
    long lPosted = 0;
    for (auto _ : aState) {
        if (aPosters == 1) {
            PostBatch(*pWorker, tally, nEach);
        } else {
            std::vector<std::thread> posters;
            posters.reserve(static_cast<size_t>(aPosters));
            for (int i = 0; i < aPosters; ++i) {
                posters.emplace_back([&] { PostBatch(*pWorker, tally, nEach); });
            }
            for (std::thread& poster : posters) {
                poster.join();
            }
        }
        lPosted += nEach * aPosters;
        WaitFor(tally, lPosted, aTwoCores);
    }
    Check(tally.count() == lPosted, "number of events");
    Check(
        tally.sum() == static_cast<long>(aState.iterations()) * aPosters * nEach * (nEach + 1) / 2,
        "sum of events");
    CountItems(aState, nEach * aPosters);
}

template <typename Worker>
void AddPostRow(const char* aArea, const std::string& aWork, int aPosters, bool aTwoCores,
                const char* aWho) {
    Row(
        aArea, aWork, aWho,
        [=](benchmark::State& aState) { PostToRun<Worker>(aState, aPosters, aTwoCores); },
        aTwoCores ? Clock::WALL : Clock::PROCESS);
}

void AddPostRows(const char* aArea, const std::string& aWork, int aPosters, bool aTwoCores) {
    ForEachWorker([&](auto aType, const char* aWho) {
        AddPostRow<typename decltype(aType)::Type>(aArea, aWork, aPosters, aTwoCores, aWho);
    });
    AddPostRow<CConditionWorker>(aArea, aWork, aPosters, aTwoCores, BY_HAND);
}

// Ours, with the watch on.
void AddWatchedRows(const std::string& aWork, bool aTwoCores) {
    for (const bool bFile : {false, true}) {
        Row(
            AREA, aWork, bFile ? "variant: watched, recorded in a file" : "variant: watched",
            [=](benchmark::State& aState) {
                Check(CM_SUCCEEDED(CCmWatch::Start(CCmWatchOptions().Record(bFile))), "watch");
                PostToRun<CKelto>(aState, 1, aTwoCores);
                CCmWatch::Stop();
            },
            aTwoCores ? Clock::WALL : Clock::PROCESS);
    }
}

// ---- Post to itself: every event posts the next.

template <typename Worker>
struct CRelay {
    void operator()() const {
        m_pTally->Add(m_lLeft);
        if (m_lLeft > 1) {
            m_pWorker->PostFunction(CRelay{m_pWorker, m_pTally, m_lLeft - 1});
        }
    }
    Worker* m_pWorker;
    CTally* m_pTally;
    long m_lLeft;
};

template <typename Worker>
void PostToItself(benchmark::State& aState) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(false);
    CTally tally;
    long lPosted = 0;
    for (auto _ : aState) {
        pWorker->PostFunction(CRelay<Worker>{pWorker.get(), &tally, BATCH});
        lPosted += BATCH;
        WaitFor(tally, lPosted, false);
    }
    Check(tally.sum() == static_cast<long>(aState.iterations()) * BATCH * (BATCH + 1) / 2,
          "sum of events");
    CountItems(aState, BATCH);
}

template <typename Worker>
void SendAndWait(benchmark::State& aState, bool aTwoCores) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(aTwoCores);
    CTally tally;
    for (auto _ : aState) {
        pWorker->Send(tally, 1);
    }
    Check(tally.sum() == static_cast<long>(aState.iterations()), "sum of events");
    CountItems(aState);
}

template <typename Worker>
void AddSendRow(bool aTwoCores, const std::string& aWho) {
    Row(
        AREA, aTwoCores ? "synchronous send, two cores" : "synchronous send, one core", aWho,
        [=](benchmark::State& aState) { SendAndWait<Worker>(aState, aTwoCores); },
        aTwoCores ? Clock::WALL : Clock::PROCESS);
}

void AddSendRows(bool aTwoCores) {
    AddSendRow<CKelto>(aTwoCores, OURS);
    ForEachCaller([&](auto aType, const char* aWho) {
        AddSendRow<CWithPromise<typename decltype(aType)::Type>>(aTwoCores,
                                                                 std::string(aWho) + PROMISE);
    });
}

template <typename Worker>
void AddCallRow(const std::string& aWho) {
    Row(
        AREA, "call with a value, one core", aWho,
        [](benchmark::State& aState) { SendAndWait<Worker>(aState, false); }, Clock::PROCESS);
}

void AddCallableRows() {
    const std::string sWork = "posted callable, 1 poster, one core";
    AddPostRow<CKeltoCallable>(AREA, sWork, 1, false, OURS);
    AddPostRow<CKelto>(AREA, sWork, 1, false, "variant: an event written by hand");
    AddPostRow<CKeltoFrontDoor>(AREA, sWork, 1, false, "variant: to a CCmWorker");
    AddPostRow<CKeltoWithTimers>(AREA, sWork, 1, false, "variant: by hand, with a timer queue");
    AddCallRow<CKeltoCallable>(OURS);
    AddCallRow<CKeltoValueByHand>("variant: a send written by hand");
    AddCallRow<CKeltoFrontDoor>("variant: to a CCmWorker");
#if KELTO_WITH_LIBUV
    AddPostRow<CLibuv>(AREA, sWork, 1, false, "libuv, list + async");
#endif
#if KELTO_WITH_BOOST
    AddPostRow<CAsio>(AREA, sWork, 1, false, "Asio");
#endif
    AddPostRow<CConditionWorker>(AREA, sWork, 1, false, BY_HAND);
    ForEachCaller([](auto aType, const char* aWho) {
        AddCallRow<CWithPromisedValue<typename decltype(aType)::Type>>(std::string(aWho) + PROMISE);
    });
}

// ---- One poster, many workers.

void PostToWorkers(benchmark::State& aState, int aWorkers) {
    const Pinned pinned(POSTER_CORE);
    std::vector<std::unique_ptr<CKelto>> workers;
    workers.reserve(static_cast<size_t>(aWorkers));
    std::vector<CTally> tallies(static_cast<size_t>(aWorkers));
    for (int i = 0; i < aWorkers; ++i) {
        workers.push_back(PlacedWorker<CKelto>(false));
    }
    const long lEach = BATCH / aWorkers;
    long lPosted = 0;
    for (auto _ : aState) {
        for (long i = 0; i < lEach; ++i) {
            for (size_t nWorker = 0; nWorker < workers.size(); ++nWorker) {
                workers[nWorker]->Post(tallies[nWorker], 1);
            }
        }
        lPosted += lEach;
        for (const CTally& tally : tallies) {
            WaitFor(tally, lPosted, false);
        }
    }
    CountItems(aState, lEach * aWorkers);
}

const bool s_bAdded = [] {
    AddPostRows(AREA, "post to run, 1 poster, one core", 1, false);
    AddWatchedRows("post to run, 1 poster, one core", false);
    AddPostRows(AREA, "post to run, 4 posters, one core", 4, false);
    AddCallableRows();
    if (std::thread::hardware_concurrency() > 1) {
        AddPostRows(AREA, "post to run, 1 poster, two cores", 1, true);
        AddWatchedRows("post to run, 1 poster, two cores", true);
        AddSendRows(true);
    }
    AddSendRows(false);
    Row(AREA, "post to itself", OURS, PostToItself<CKelto>, Clock::PROCESS);
    ForEachCaller([](auto aType, const char* aWho) {
        Row(AREA, "post to itself", aWho, PostToItself<typename decltype(aType)::Type>,
            Clock::PROCESS);
    });
    for (int nPosters : {1, 2, 4, 8, 16}) {
        AddPostRows("growth: post to run on one core, over posters", std::to_string(nPosters),
                    nPosters, false);
    }
    for (int nWorkers : {1, 4, 16, 64}) {
        Row(
            "growth: post to run on one core, over workers", std::to_string(nWorkers), OURS,
            [=](benchmark::State& aState) { PostToWorkers(aState, nWorkers); }, Clock::PROCESS);
    }
    return true;
}();

}  // namespace
