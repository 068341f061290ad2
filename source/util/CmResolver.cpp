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
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmThread.h"

namespace UTIL_NS {

namespace {

typedef std::chrono::steady_clock Clock;

constexpr int THREAD_TYPE = 1;
constexpr size_t MAX_LABEL = 63;
constexpr long LONGEST_LIMIT = 1000000000;  // seconds; more is none
// The wait follows the wall clock, which may be set back meanwhile.
constexpr CCmTimeValue LONGEST_WAIT(1);

bool IsLabelCharacter(char aChar) {
    const char ch = CmToLower(aChar);
    return (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '-' || ch == '_';
}

// As systems read the end of an address: decimal, octal or hexadecimal.
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

struct Outcome {
    CmResult result = CM_ERROR_TIMEOUT;
    std::vector<CCmIpAddress> addresses;
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

Outcome AskTheSystem(const CCmString& aName, CCmIpAddress::Family aFamily) {
    addrinfo hints = {};
    hints.ai_family = aFamily == CCmIpAddress::IPV4   ? AF_INET
                      : aFamily == CCmIpAddress::IPV6 ? AF_INET6
                                                      : AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // one entry for each address
    addrinfo* pList = nullptr;
    Outcome outcome;
    outcome.result = ResultOf(g_cmSystem.getaddrinfo(aName.c_str(), nullptr, &hints, &pList));
    if (CM_SUCCEEDED(outcome.result)) {
        outcome.result = Collect(pList, outcome.addresses);
        g_cmSystem.freeaddrinfo(pList);
    }
    return outcome;
}

// A question that has not been answered. The answer is owned.
struct Job {
    CCmString name;
    CCmIpAddress::Family family = CCmIpAddress::NONE;
    ICmEventQueue* queue = nullptr;
    ACmResolution* answer = nullptr;
    Outcome* outcome = nullptr;  // of the answer
    Clock::time_point due;       // the start of time once there is an outcome
};
typedef std::map<uint64_t, Job> Jobs;

// What the resolver, its threads and its answers share; whoever is last frees it.
//
// Only the watcher posts answers, one at a time, so that whoever cancels can wait until the queue
// of an answer is not used any more.
class CState : public std::enable_shared_from_this<CState> {
  public:
    CState() : m_Changed(m_Mutex), m_Posted(m_Mutex) {}

    uint64_t NewId();
    // Owns the answer from then on. Throws for want of memory, with nothing changed.
    void Add(uint64_t aId, const Job& aJob);
    // An answer that the asker itself posts. Throws likewise.
    void AddPosted(uint64_t aId);
    // Whether the answer may run.
    bool TakeLive(uint64_t aId);
    bool Cancel(uint64_t aId, ACmResolution*& aAnswer);
    // From here on nobody is answered; returns what is still to be ended.
    Jobs Close();

    // The watcher's body.
    void Watch();
    // A lookup has ended.
    void Finish(uint64_t aId, Outcome& aOutcome);
    void SetWatcher(pthread_t aThread) {
        const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_watcher = aThread;
    }

  private:
    bool StepOrWait();
    void Deliver(Jobs::node_type aJob);
    void StartLookup(uint64_t aId, const CCmString& aName, CCmIpAddress::Family aFamily);
    Jobs::node_type TakeDue_l() CM_REQUIRES(m_Mutex);
    bool TakeWaiting_l(uint64_t& aId, CCmString& aName, CCmIpAddress::Family& aFamily)
        CM_REQUIRES(m_Mutex);
    CmResult Wait_l() CM_REQUIRES(m_Mutex);

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Changed;  // for the watcher
    CCmConditionVariableThread m_Posted;   // for those that cancel
    Jobs m_jobs CM_GUARDED_BY(m_Mutex);
    std::set<std::pair<Clock::time_point, uint64_t>> m_due CM_GUARDED_BY(m_Mutex);  // of m_jobs
    std::deque<uint64_t> m_waiting CM_GUARDED_BY(m_Mutex);  // for a lookup; some may be gone
    std::set<uint64_t> m_live CM_GUARDED_BY(m_Mutex);       // answers that may still run
    uint64_t m_ullLastId CM_GUARDED_BY(m_Mutex) = 0;
    uint64_t m_ullPosting CM_GUARDED_BY(m_Mutex) = 0;  // what the watcher is posting
    int m_nLookups CM_GUARDED_BY(m_Mutex) = 0;
    bool m_bClosed CM_GUARDED_BY(m_Mutex) = false;
    pthread_t m_watcher CM_GUARDED_BY(m_Mutex) = {};
};

// One question to the system.
class CLookup : public ACmThread {
  public:
    CLookup(std::shared_ptr<CState> aState, uint64_t aId, CCmString aName,
            CCmIpAddress::Family aFamily)
        : m_pState(std::move(aState)),
          m_ullId(aId),
          m_strName(std::move(aName)),
          m_family(aFamily) {}

    void OnThreadRun() override {
        Outcome outcome = AskTheSystem(m_strName, m_family);
        m_pState->Finish(m_ullId, outcome);
    }

  private:
    const std::shared_ptr<CState> m_pState;
    const uint64_t m_ullId;
    const CCmString m_strName;
    const CCmIpAddress::Family m_family;
};

class CWatcher : public ACmThread {
  public:
    explicit CWatcher(std::shared_ptr<CState> aState) : m_pState(std::move(aState)) {}

    void OnThreadInit() override { m_pState->SetWatcher(::pthread_self()); }
    void OnThreadRun() override { m_pState->Watch(); }

  private:
    const std::shared_ptr<CState> m_pState;
};

uint64_t CState::NewId() {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return ++m_ullLastId;
}

void CState::Add(uint64_t aId, const Job& aJob) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    try {
        m_live.insert(aId);
        m_due.insert({aJob.due, aId});
        m_waiting.push_back(aId);
        m_jobs.emplace(aId, aJob);
    } catch (const std::exception&) {
        m_live.erase(aId);
        m_due.erase({aJob.due, aId});
        throw;  // one too many that wait does not matter
    }
    m_Changed.Signal();
}

void CState::AddPosted(uint64_t aId) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_live.insert(aId);
}

bool CState::TakeLive(uint64_t aId) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_live.erase(aId) != 0;
}

bool CState::Cancel(uint64_t aId, ACmResolution*& aAnswer) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (m_live.erase(aId) == 0) {
        return false;
    }
    const auto it = m_jobs.find(aId);
    if (it != m_jobs.end()) {
        aAnswer = it->second.answer;
        m_due.erase({it->second.due, aId});
        m_jobs.erase(it);
    }
    // An answer that is refused ends on the watcher, and may cancel there.
    while (m_ullPosting == aId && ::pthread_equal(m_watcher, ::pthread_self()) == 0) {
        m_Posted.Wait(nullptr);
    }
    return true;
}

Jobs CState::Close() {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    Jobs jobs;
    jobs.swap(m_jobs);
    m_due.clear();
    m_live.clear();
    m_bClosed = true;
    m_Changed.Signal();
    return jobs;
}

void CState::Finish(uint64_t aId, Outcome& aOutcome) {
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    --m_nLookups;
    const auto it = m_jobs.find(aId);
    if (it != m_jobs.end()) {
        Job& job = it->second;
        std::swap(*job.outcome, aOutcome);
        // The same node under another key: nothing is allocated.
        auto due = m_due.extract({job.due, aId});
        job.due = Clock::time_point::min();
        due.value().first = job.due;
        m_due.insert(std::move(due));
    }
    m_Changed.Signal();
}

void CState::Watch() {
    while (StepOrWait()) {
    }
}

// One answer, one lookup or one wait; false when the resolver has ended.
bool CState::StepOrWait() {
    Jobs::node_type due;
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
        const timespec pause = {0, 10 * 1000 * 1000};  // rather than spin where no wait works
        g_cmSystem.nanosleep(&pause, nullptr);
    }
    return true;
}

Jobs::node_type CState::TakeDue_l() {
    if (m_due.empty() || m_due.begin()->first > Clock::now()) {
        return {};
    }
    m_ullPosting = m_due.begin()->second;
    m_due.erase(m_due.begin());
    return m_jobs.extract(m_ullPosting);
}

bool CState::TakeWaiting_l(uint64_t& aId, CCmString& aName, CCmIpAddress::Family& aFamily) {
    while (m_nLookups < CCmResolver::MAX_LOOKUPS && !m_waiting.empty()) {
        const auto it = m_jobs.find(m_waiting.front());
        m_waiting.pop_front();
        if (it != m_jobs.end()) {
            aId = it->first;
            aName.swap(it->second.name);
            aFamily = it->second.family;
            ++m_nLookups;
            return true;
        }
    }
    return false;
}

CmResult CState::Wait_l() {
    if (m_due.empty()) {
        return m_Changed.Wait(nullptr);
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(m_due.begin()->first - Clock::now());
    CCmTimeValue tvWait =
        std::min(CCmTimeValue(0, static_cast<long>(left.count()) + 1), LONGEST_WAIT);
    return m_Changed.Wait(&tvWait);
}

void CState::Deliver(Jobs::node_type aJob) {
    const Job& job = aJob.mapped();
    job.queue->PostEvent(job.answer, ICmEventQueue::EPRIORITY_NORMAL);
    const CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_ullPosting = 0;
    m_Posted.Broadcast();
}

void CState::StartLookup(uint64_t aId, const CCmString& aName, CCmIpAddress::Family aFamily) {
    Outcome outcome;
    outcome.result = CM_ERROR_OUT_OF_MEMORY;
    try {
        auto* pLookup = new CLookup(shared_from_this(), aId, aName, aFamily);
        outcome.result = pLookup->Create(THREAD_TYPE, TF_DETACHED, 0);
        pLookup->Destory(outcome.result);
    } catch (const std::exception&) {
    }
    if (CM_FAILED(outcome.result)) {
        Finish(aId, outcome);
    }
}

}  // namespace

struct __attribute__((visibility("hidden"))) ACmResolution::Rep {
    Outcome outcome;
    uint64_t id = 0;
    std::shared_ptr<CState> state;
};

struct __attribute__((visibility("hidden"))) CCmResolver::Rep {
    CCmMutexThread mutex;
    ACmThread* watcher CM_GUARDED_BY(mutex) = nullptr;  // null until there is a name to look up
    std::shared_ptr<CState> state = std::make_shared<CState>();

    static Rep* Make() {
        try {
            return new Rep;
        } catch (const std::exception&) {
            return nullptr;
        }
    }
    CmResult StartWatcher();
    CmResult Ask(std::string_view aName, const CCmTimeValue& aLimit, uint64_t aId, Job& aJob);
};

CmResult CCmResolver::Rep::StartWatcher() {
    const CCmScopedLockT<CCmMutexThread> lock(mutex);
    if (watcher != nullptr) {
        return CM_OK;
    }
    auto* pWatcher = new CWatcher(state);
    const CmResult rv = pWatcher->Create(THREAD_TYPE, TF_JOINABLE, 0);
    if (CM_FAILED(rv)) {
        pWatcher->Destory(rv);
        return rv;
    }
    watcher = pWatcher;
    return CM_OK;
}

// Takes the answer on success.
CmResult CCmResolver::Rep::Ask(std::string_view aName, const CCmTimeValue& aLimit, uint64_t aId,
                               Job& aJob) {
    CCmIpAddress address;
    if (aJob.queue == nullptr || aLimit <= CCmTimeValue()) {
        return CM_ERROR_INVALID_ARG;
    }
    if (CmParseIpAddress(aName, address)) {
        const bool bWanted = aJob.family == CCmIpAddress::NONE || aJob.family == address.m_family;
        aJob.outcome->result = bWanted ? CM_OK : CM_ERROR_NOT_FOUND;
        aJob.outcome->addresses.assign(bWanted ? 1 : 0, address);
        state->AddPosted(aId);
        aJob.queue->PostEvent(aJob.answer, ICmEventQueue::EPRIORITY_NORMAL);
        return CM_OK;
    }
    if (!IsName(aName)) {
        return CM_ERROR_INVALID_ARG;
    }
    const CmResult rv = StartWatcher();
    if (CM_FAILED(rv)) {
        return rv;
    }
    aJob.name = aName;
    aJob.due = aLimit.GetSec() >= LONGEST_LIMIT
                   ? Clock::time_point::max()
                   : Clock::now() + std::chrono::seconds(aLimit.GetSec()) +
                         std::chrono::microseconds(aLimit.GetUsec());
    state->Add(aId, aJob);
    return CM_OK;
}

ACmResolution::ACmResolution() : m_pRep(new (std::nothrow) Rep) {}

ACmResolution::~ACmResolution() {
    if (m_pRep != nullptr && m_pRep->state != nullptr) {
        m_pRep->state->TakeLive(m_pRep->id);
    }
    delete m_pRep;
}

CmResult ACmResolution::result() const {
    return m_pRep == nullptr ? CM_ERROR_OUT_OF_MEMORY : m_pRep->outcome.result;
}

const std::vector<CCmIpAddress>& ACmResolution::addresses() const {
    static const std::vector<CCmIpAddress> s_none;
    return m_pRep == nullptr ? s_none : m_pRep->outcome.addresses;
}

CmResult ACmResolution::OnEventFire() {
    if (m_pRep != nullptr && m_pRep->state != nullptr && m_pRep->state->TakeLive(m_pRep->id)) {
        OnResolved();
    }
    return CM_OK;
}

CCmResolver::CCmResolver() : m_pRep(Rep::Make()) {}

CCmResolver::~CCmResolver() {
    CCmDisableCancel disableCancel;
    if (m_pRep == nullptr) {
        return;
    }
    const Jobs jobs = m_pRep->state->Close();
    if (m_pRep->watcher != nullptr) {
        m_pRep->watcher->Join();
        m_pRep->watcher->Destory(CM_OK);
    }
    for (const auto& job : jobs) {
        job.second.answer->OnDestorySelf();
    }
    delete m_pRep;
}

CmResult CCmResolver::Resolve(std::string_view aName, ICmEventQueue* aQueue, ACmResolution* aAnswer,
                              const CCmTimeValue& aLimit, CCmIpAddress::Family aFamily,
                              uint64_t* aId) {
    CCmDisableCancel disableCancel;
    if (aAnswer == nullptr) {
        return CM_ERROR_INVALID_ARG;
    }
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    if (m_pRep != nullptr && aAnswer->m_pRep != nullptr) {
        ACmResolution::Rep& answer = *aAnswer->m_pRep;
        answer.state = m_pRep->state;
        const uint64_t ullId = answer.id = m_pRep->state->NewId();
        if (aId != nullptr) {
            *aId = ullId;
        }
        Job job;
        job.family = aFamily;
        job.queue = aQueue;
        job.answer = aAnswer;
        job.outcome = &answer.outcome;
        try {
            rv = m_pRep->Ask(aName, aLimit, ullId, job);
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
    ACmResolution* pAnswer = nullptr;
    if (m_pRep == nullptr || !m_pRep->state->Cancel(aId, pAnswer)) {
        return CM_ERROR_NOT_FOUND;
    }
    if (pAnswer != nullptr) {
        pAnswer->OnDestorySelf();
    }
    return CM_OK;
}

}  // namespace UTIL_NS
