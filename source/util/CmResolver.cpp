#include "CmResolver.h"

#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <utility>

#include "CmAscii.h"
#include "CmCancel.h"
#include "CmConditionVariable.h"
#include "CmPrivateState.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmThread.h"

namespace UTIL_NS {

namespace {

typedef std::chrono::steady_clock CClock;

// Of the resolver's own threads, which nobody looks up by it: any but TT_UNKNOWN and TT_MAIN.
constexpr int THREAD_TYPE = 1;
constexpr size_t MAX_LABEL = 63;  // characters between two dots, as DNS has it
// In seconds, 31 years; a longer limit counts as none, so that no sum with the clock overflows.
constexpr long LONGEST_LIMIT = 1000000000;
// Limits follow the monotonic clock, but a wait has its deadline on the wall clock, and is too long
// when that is set back meanwhile. So no single wait is longer than this.
constexpr CCmTimeValue LONGEST_WAIT(1);
// The watcher's sleep in place of a wait that fails: it must not spin.
constexpr timespec WAIT_FAILURE_NAP = {0, 10 * 1000 * 1000};  // 10 ms

bool IsLabelCharacter(char aChar) {
    return CmIsLetter(aChar) || CmIsDigit(aChar) || aChar == '-' || aChar == '_';
}

// Whether systems take the last part of a name for a number, and the name for an IPv4 address:
// decimal, octal or hexadecimal.
bool IsNumber(std::string_view aLabel) {
    if (aLabel.find_first_not_of("0123456789") == aLabel.npos) {
        return true;
    }
    return aLabel.size() >= 2 && aLabel[0] == '0' && CmToLower(aLabel[1]) == 'x' &&
           aLabel.find_first_not_of("0123456789abcdefABCDEF", 2) == aLabel.npos;
}

bool IsName(std::string_view aName) {
    if (!aName.empty() && aName.back() == '.') {
        aName.remove_suffix(1);
    }
    if (aName.empty() || aName.size() > CCmResolver::MAX_NAME) {
        return false;
    }
    std::string_view label;
    for (size_t nAt = 0; nAt <= aName.size(); nAt += label.size() + 1) {
        label = aName.substr(nAt, aName.find('.', nAt) - nAt);
        if (label.empty() || label.size() > MAX_LABEL ||
            !std::all_of(label.begin(), label.end(), IsLabelCharacter)) {
            return false;
        }
    }
    return !IsNumber(label);
}

struct COutcome {
    CmResult m_Result = CM_ERROR_TIMEOUT;
    std::vector<CCmIpAddress> m_Addresses;
};

CmResult ResultOf(int aError) {
    switch (aError) {
        case 0:
            return CM_OK;
        case EAI_AGAIN:
            return CM_ERROR_NOT_AVAILABLE;
        case EAI_MEMORY:
            return CM_ERROR_OUT_OF_MEMORY;
        case EAI_FAIL:
        case EAI_SYSTEM:
            return CM_ERROR_FAILURE;
        default:  // there are several for names without such an address
            return CM_ERROR_NOT_FOUND;
    }
}

CmResult Collect(const addrinfo* aList, std::vector<CCmIpAddress>& aAddresses) {
    try {
        for (const addrinfo* pInfo = aList; pInfo != nullptr; pInfo = pInfo->ai_next) {
            CCmEndpoint endpoint;
            if (CM_SUCCEEDED(CmFromSocketAddress(pInfo->ai_addr, pInfo->ai_addrlen, endpoint)) &&
                std::find(aAddresses.begin(), aAddresses.end(), endpoint.m_address) ==
                    aAddresses.end()) {
                aAddresses.push_back(endpoint.m_address);
            }
        }
    } catch (const std::exception&) {
        aAddresses.clear();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return aAddresses.empty() ? CM_ERROR_NOT_FOUND : CM_OK;
}

COutcome AskTheSystem(const CCmString& aName, CCmIpAddress::Family aFamily) {
    addrinfo hints = {};
    hints.ai_family = aFamily == CCmIpAddress::IPV4   ? AF_INET
                      : aFamily == CCmIpAddress::IPV6 ? AF_INET6
                                                      : AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // one entry for each address
    addrinfo* pList = nullptr;
    COutcome outcome;
    outcome.m_Result = ResultOf(g_cmSystem.getaddrinfo(aName.c_str(), nullptr, &hints, &pList));
    if (CM_SUCCEEDED(outcome.m_Result)) {
        outcome.m_Result = Collect(pList, outcome.m_Addresses);
        g_cmSystem.freeaddrinfo(pList);
    }
    return outcome;
}

// A question that has not been answered. The answer is owned.
struct CJob {
    CCmString m_strName;
    CCmIpAddress::Family m_eFamily = CCmIpAddress::NONE;
    ICmEventQueue* m_pQueue = nullptr;
    ACmResolution* m_pAnswer = nullptr;
    COutcome* m_pOutcome = nullptr;  // of the answer
    CClock::time_point m_Due;        // at once (the least value) when there is an outcome
};
typedef std::map<uint64_t, CJob> CJobs;

// What the resolver, its threads and its answers share; whoever is last frees it. One mutex guards
// all of it.
//
// Only the watcher posts answers, one at a time and without the mutex. While it does, m_ullPosting
// names the answer, and Cancel waits until it is posted: after that the queue may be destroyed.
class CQuestions : public std::enable_shared_from_this<CQuestions> {
  public:
    CQuestions() : m_Changed(m_Mutex), m_Posted(m_Mutex) {}

    uint64_t NewId();
    // Owns the answer from then on. Throws for want of memory, with nothing changed.
    void Add(uint64_t aId, const CJob& aJob);
    // For an answer that Resolve itself posts. Throws likewise.
    void AddPosted(uint64_t aId);
    // Whether the answer may run.
    bool TakeLive(uint64_t aId);
    bool Cancel(uint64_t aId, ACmResolution*& aAnswer);
    // From here on nobody is answered; returns what is still to be destroyed.
    CJobs Close();

    // What the watcher runs until Close.
    void Watch();
    // Stores what a lookup found; its answer is due at once.
    void Finish(uint64_t aId, COutcome& aOutcome);
    void SetWatcher(pthread_t aThread) {
        const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_Watcher = aThread;
    }

  private:
    bool StepOrWait();
    void Deliver(CJobs::node_type aJob);
    void StartLookup(uint64_t aId, const CCmString& aName, CCmIpAddress::Family aFamily);
    CJobs::node_type TakeDue_l() CM_REQUIRES(m_Mutex);
    bool TakeWaiting_l(uint64_t& aId, CCmString& aName, CCmIpAddress::Family& aFamily)
        CM_REQUIRES(m_Mutex);
    CmResult Wait_l() CM_REQUIRES(m_Mutex);

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Changed;  // for the watcher
    CCmConditionVariableThread m_Posted;   // for those that cancel
    CJobs m_Jobs CM_GUARDED_BY(m_Mutex);
    std::set<std::pair<CClock::time_point, uint64_t>> m_Due CM_GUARDED_BY(m_Mutex);  // of m_Jobs
    std::deque<uint64_t> m_Waiting CM_GUARDED_BY(m_Mutex);  // for a lookup; some may be gone
    std::set<uint64_t> m_Live CM_GUARDED_BY(m_Mutex);       // answers that may still run
    uint64_t m_ullLastId CM_GUARDED_BY(m_Mutex) = 0;
    uint64_t m_ullPosting CM_GUARDED_BY(m_Mutex) = 0;  // what the watcher is posting
    int m_nLookups CM_GUARDED_BY(m_Mutex) = 0;
    bool m_bClosed CM_GUARDED_BY(m_Mutex) = false;
    pthread_t m_Watcher CM_GUARDED_BY(m_Mutex) = {};
};

// One question to the system.
class CLookup : public ACmThread {
  public:
    CLookup(std::shared_ptr<CQuestions> aQuestions, uint64_t aId, CCmString aName,
            CCmIpAddress::Family aFamily)
        : m_pQuestions(std::move(aQuestions)),
          m_ullId(aId),
          m_strName(std::move(aName)),
          m_eFamily(aFamily) {}

    void OnThreadRun() override {
        COutcome outcome = AskTheSystem(m_strName, m_eFamily);
        m_pQuestions->Finish(m_ullId, outcome);
    }

  private:
    const std::shared_ptr<CQuestions> m_pQuestions;
    const uint64_t m_ullId;
    const CCmString m_strName;
    const CCmIpAddress::Family m_eFamily;
};

class CWatcher : public ACmThread {
  public:
    explicit CWatcher(std::shared_ptr<CQuestions> aQuestions)
        : m_pQuestions(std::move(aQuestions)) {}

    void OnThreadInit() override { m_pQuestions->SetWatcher(pthread_self()); }
    void OnThreadRun() override { m_pQuestions->Watch(); }

  private:
    const std::shared_ptr<CQuestions> m_pQuestions;
};

uint64_t CQuestions::NewId() {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return ++m_ullLastId;
}

void CQuestions::Add(uint64_t aId, const CJob& aJob) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    try {
        m_Live.insert(aId);
        m_Due.insert({aJob.m_Due, aId});
        m_Waiting.push_back(aId);
        m_Jobs.emplace(aId, aJob);
    } catch (const std::exception&) {
        m_Live.erase(aId);
        m_Due.erase({aJob.m_Due, aId});
        throw;  // a number left in m_Waiting is skipped when its turn comes
    }
    m_Changed.Signal();
}

void CQuestions::AddPosted(uint64_t aId) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_Live.insert(aId);
}

bool CQuestions::TakeLive(uint64_t aId) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_Live.erase(aId) != 0;
}

bool CQuestions::Cancel(uint64_t aId, ACmResolution*& aAnswer) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (m_Live.erase(aId) == 0) {
        return false;
    }
    const auto it = m_Jobs.find(aId);
    if (it != m_Jobs.end()) {
        aAnswer = it->second.m_pAnswer;
        m_Due.erase({it->second.m_Due, aId});
        m_Jobs.erase(it);
    }
    // The watcher does not wait for itself: an answer that the queue refuses is destroyed on it,
    // and that may cancel.
    while (m_ullPosting == aId && !IsEqualCurrentThread(m_Watcher)) {
        m_Posted.Wait(nullptr);
    }
    return true;
}

CJobs CQuestions::Close() {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    CJobs jobs;
    jobs.swap(m_Jobs);
    m_Due.clear();
    m_Live.clear();
    m_bClosed = true;
    m_Changed.Signal();
    return jobs;
}

void CQuestions::Finish(uint64_t aId, COutcome& aOutcome) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    --m_nLookups;
    const auto it = m_Jobs.find(aId);
    if (it != m_Jobs.end()) {
        CJob& job = it->second;
        std::swap(*job.m_pOutcome, aOutcome);
        // The same node is put back under another key, so nothing is allocated.
        auto due = m_Due.extract({job.m_Due, aId});
        job.m_Due = CClock::time_point::min();
        due.value().first = job.m_Due;
        m_Due.insert(std::move(due));
    }
    m_Changed.Signal();
}

void CQuestions::Watch() {
    while (StepOrWait()) {
    }
}

// Delivers one answer, starts one lookup or waits once; false after Close.
bool CQuestions::StepOrWait() {
    CJobs::node_type due;
    uint64_t ullId = 0;
    CCmString strName;
    CCmIpAddress::Family family = CCmIpAddress::NONE;
    {
        const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (m_bClosed) {
            return false;
        }
        due = TakeDue_l();
        if (due.empty() && !TakeWaiting_l(ullId, strName, family) && Wait_l() != CM_ERROR_FAILURE) {
            return true;
        }
    }
    if (!due.empty()) {
        Deliver(std::move(due));
    } else if (ullId != 0) {
        StartLookup(ullId, strName, family);
    } else {
        g_cmSystem.nanosleep(&WAIT_FAILURE_NAP, nullptr);
    }
    return true;
}

CJobs::node_type CQuestions::TakeDue_l() {
    if (m_Due.empty() || m_Due.begin()->first > CClock::now()) {
        return {};
    }
    m_ullPosting = m_Due.begin()->second;
    m_Due.erase(m_Due.begin());
    return m_Jobs.extract(m_ullPosting);
}

bool CQuestions::TakeWaiting_l(uint64_t& aId, CCmString& aName, CCmIpAddress::Family& aFamily) {
    while (m_nLookups < CCmResolver::MAX_LOOKUPS && !m_Waiting.empty()) {
        const auto it = m_Jobs.find(m_Waiting.front());
        m_Waiting.pop_front();
        if (it != m_Jobs.end()) {
            aId = it->first;
            aName.swap(it->second.m_strName);
            aFamily = it->second.m_eFamily;
            ++m_nLookups;
            return true;
        }
    }
    return false;
}

CmResult CQuestions::Wait_l() {
    if (m_Due.empty()) {
        return m_Changed.Wait(nullptr);
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(m_Due.begin()->first - CClock::now());
    CCmTimeValue tvWait =
        std::min(CCmTimeValue(0, static_cast<long>(left.count()) + 1), LONGEST_WAIT);
    return m_Changed.Wait(&tvWait);
}

void CQuestions::Deliver(CJobs::node_type aJob) {
    const CJob& job = aJob.mapped();
    job.m_pQueue->PostEvent(job.m_pAnswer, ICmEventQueue::EPRIORITY_NORMAL);
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_ullPosting = 0;
    m_Posted.Broadcast();
}

void CQuestions::StartLookup(uint64_t aId, const CCmString& aName, CCmIpAddress::Family aFamily) {
    COutcome outcome;
    outcome.m_Result = CM_ERROR_OUT_OF_MEMORY;
    try {
        auto* pLookup = new CLookup(shared_from_this(), aId, aName, aFamily);
        outcome.m_Result = pLookup->Create(THREAD_TYPE, TF_DETACHED, 0);
        pLookup->Destory(outcome.m_Result);
    } catch (const std::exception&) {
    }
    if (CM_FAILED(outcome.m_Result)) {
        Finish(aId, outcome);
    }
}

}  // namespace

struct CM_UTIL_HIDDEN ACmResolution::CResolutionState {
    COutcome m_Outcome;
    uint64_t m_ullId = 0;
    std::shared_ptr<CQuestions> m_pQuestions;  // null until it is asked
};

struct CM_UTIL_HIDDEN CCmResolver::CResolverState {
    CResolverState() {
        try {
            m_pQuestions = std::make_shared<CQuestions>();
        } catch (const std::exception&) {
            // Nobody can ask.
        }
    }
    CmResult StartWatcher();
    CmResult Ask(std::string_view aName, const CCmTimeValue& aLimit, uint64_t aId, CJob& aJob);

    CCmMutexThread m_Mutex;
    ACmThread* m_pWatcher CM_GUARDED_BY(m_Mutex) =
        nullptr;                               // null until there is a name to look up
    std::shared_ptr<CQuestions> m_pQuestions;  // null without memory
};

CmResult CCmResolver::CResolverState::StartWatcher() {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (m_pWatcher != nullptr) {
        return CM_OK;
    }
    auto* pWatcher = new CWatcher(m_pQuestions);
    const CmResult rv = pWatcher->Create(THREAD_TYPE, TF_JOINABLE, 0);
    if (CM_FAILED(rv)) {
        pWatcher->Destory(rv);
        return rv;
    }
    m_pWatcher = pWatcher;
    return CM_OK;
}

// On success the answer is owned.
CmResult CCmResolver::CResolverState::Ask(std::string_view aName, const CCmTimeValue& aLimit,
                                          uint64_t aId, CJob& aJob) {
    CCmIpAddress address;
    if (aJob.m_pQueue == nullptr || aLimit <= CCmTimeValue()) {
        return CM_ERROR_INVALID_ARG;
    }
    if (CmParseIpAddress(aName, address)) {
        const bool bWanted =
            aJob.m_eFamily == CCmIpAddress::NONE || aJob.m_eFamily == address.m_family;
        aJob.m_pOutcome->m_Result = bWanted ? CM_OK : CM_ERROR_NOT_FOUND;
        aJob.m_pOutcome->m_Addresses.assign(bWanted ? 1 : 0, address);
        m_pQuestions->AddPosted(aId);
        aJob.m_pQueue->PostEvent(aJob.m_pAnswer, ICmEventQueue::EPRIORITY_NORMAL);
        return CM_OK;
    }
    if (!IsName(aName)) {
        return CM_ERROR_INVALID_ARG;
    }
    const CmResult rv = StartWatcher();
    if (CM_FAILED(rv)) {
        return rv;
    }
    aJob.m_strName = aName;
    aJob.m_Due = aLimit.GetSec() >= LONGEST_LIMIT
                     ? CClock::time_point::max()
                     : CClock::now() + std::chrono::seconds(aLimit.GetSec()) +
                           std::chrono::microseconds(aLimit.GetUsec());
    m_pQuestions->Add(aId, aJob);
    return CM_OK;
}

ACmResolution::ACmResolution() {
    CCmPrivateRoom::Make(m_Private);
}

ACmResolution::~ACmResolution() {
    CResolutionState& state = CCmPrivateRoom::Of(m_Private);
    if (state.m_pQuestions != nullptr) {
        state.m_pQuestions->TakeLive(state.m_ullId);
    }
    CCmPrivateRoom::End(m_Private);
}

CmResult ACmResolution::result() const {
    return CCmPrivateRoom::Of(m_Private).m_Outcome.m_Result;
}

const std::vector<CCmIpAddress>& ACmResolution::addresses() const {
    return CCmPrivateRoom::Of(m_Private).m_Outcome.m_Addresses;
}

CmResult ACmResolution::OnEventFire() {
    const CResolutionState& state = CCmPrivateRoom::Of(m_Private);
    if (state.m_pQuestions != nullptr && state.m_pQuestions->TakeLive(state.m_ullId)) {
        OnResolved();
    }
    return CM_OK;
}

CCmResolver::CCmResolver() {
    CCmPrivateRoom::Make(m_Private);
}

CCmResolver::~CCmResolver() {
    CCmDisableCancel disableCancel;
    CResolverState& state = CCmPrivateRoom::Of(m_Private);
    if (state.m_pQuestions != nullptr) {
        const CJobs jobs = state.m_pQuestions->Close();
        if (state.m_pWatcher != nullptr) {
            state.m_pWatcher->Join();
            state.m_pWatcher->Destory(CM_OK);
        }
        for (const auto& job : jobs) {
            job.second.m_pAnswer->OnDestorySelf();
        }
    }
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmResolver::Resolve(std::string_view aName, ICmEventQueue* aQueue, ACmResolution* aAnswer,
                              const CCmTimeValue& aLimit, CCmIpAddress::Family aFamily,
                              uint64_t* aId) {
    CCmDisableCancel disableCancel;
    if (aAnswer == nullptr) {
        return CM_ERROR_INVALID_ARG;
    }
    CResolverState& state = CCmPrivateRoom::Of(m_Private);
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    if (state.m_pQuestions != nullptr) {
        ACmResolution::CResolutionState& answer = CCmPrivateRoom::Of(aAnswer->m_Private);
        answer.m_pQuestions = state.m_pQuestions;
        const uint64_t ullId = answer.m_ullId = state.m_pQuestions->NewId();
        if (aId != nullptr) {
            *aId = ullId;
        }
        CJob job;
        job.m_eFamily = aFamily;
        job.m_pQueue = aQueue;
        job.m_pAnswer = aAnswer;
        job.m_pOutcome = &answer.m_Outcome;
        try {
            rv = state.Ask(aName, aLimit, ullId, job);
        } catch (const std::exception&) {
        }
    }
    if (CM_FAILED(rv)) {
        aAnswer->OnDestorySelf();
    }
    return rv;
}

CmResult CCmResolver::Cancel(uint64_t aId) {
    CCmDisableCancel disableCancel;
    CResolverState& state = CCmPrivateRoom::Of(m_Private);
    ACmResolution* pAnswer = nullptr;
    if (state.m_pQuestions == nullptr || !state.m_pQuestions->Cancel(aId, pAnswer)) {
        return CM_ERROR_NOT_FOUND;
    }
    if (pAnswer != nullptr) {
        pAnswer->OnDestorySelf();
    }
    return CM_OK;
}

}  // namespace UTIL_NS
