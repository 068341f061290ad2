/// Names to addresses without waiting: the system's resolver on a worker, the answer as an event.
///
///     class CAnswer : public ACmResolution {
///         void OnResolved() override {
///             if (CM_SUCCEEDED(result())) {
///                 Connect(addresses().front());
///             }
///         }
///     };
///     CCmResolver resolver;
///     ICmEventQueue* pQueue = pWorker->GetEventQueue();
///     resolver.Resolve("media.example.org", pQueue, new CAnswer, CCmTimeValue(5));
/// \file
#ifndef CM_RESOLVER_H
#define CM_RESOLVER_H

#include <string_view>
#include <vector>

#include "CmBase.h"
#include "CmEventQueueBase.h"
#include "CmPrivateRoom.h"
#include "CmStrict.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// An answer; to be created by new, once for each question. Ends like every event.
class CM_UTIL_EXPORT ACmResolution : public ICmEvent {
  public:
    /// No answer yet: not asked.
    ACmResolution();
    /// Called by whoever ends the event.
    ~ACmResolution() override;

    /// On the thread of the queue that was named with the question; not called when the question
    /// was cancelled in time.
    virtual void OnResolved() = 0;

    /// CM_OK: there is at least one address. CM_ERROR_NOT_FOUND: the name has none.
    /// CM_ERROR_TIMEOUT: the limit passed. CM_ERROR_NOT_AVAILABLE: no server answers, try later.
    /// CM_ERROR_FAILURE, CM_ERROR_OUT_OF_MEMORY, CM_ERROR_UNEXPECTED (no thread could be started).
    CmResult result() const;
    /// In the order in which they are to be tried; empty but with CM_OK.
    const std::vector<CCmIpAddress>& addresses() const;

    /// Calls OnResolved unless the question was cancelled.
    CmResult OnEventFire() final;

  private:
    friend class CCmResolver;
    struct CResolutionState;
    CCmPrivateRoomT<CResolutionState, 192> m_Private;
};

/// Asks the system's resolver, which alone knows /etc/hosts, its servers and its caches. That one
/// blocks and cannot be interrupted, so questions are put to it on threads of their own, at most
/// MAX_LOOKUPS at a time, which last as long as it takes; one more thread, started with the first
/// name, watches the limits. Any thread may ask and cancel. Nothing throws.
class CM_UTIL_EXPORT CCmResolver {
  public:
    /// Names that are put to the system at a time; more wait for their turn.
    static constexpr int MAX_LOOKUPS = 4;
    /// Characters of the longest name.
    static constexpr size_t MAX_NAME = 253;

    /// Starts nothing yet. Where memory runs out, every question fails with CM_ERROR_OUT_OF_MEMORY.
    CCmResolver();
    /// Cancels what is pending. Does not wait for the system's resolver: a lookup under way ends by
    /// itself, without touching this object. Not to be called from the destructor of an answer.
    ~CCmResolver();
    CCmResolver(const CCmResolver&) = delete;
    CCmResolver& operator=(const CCmResolver&) = delete;

    /// Asks for the addresses of aName and returns; the answer is posted to aQueue once, at the
    /// latest when aLimit (s_tvMax: none) has passed. aQueue: not owned; cancel, or end the
    /// resolver, before it ends. aAnswer: owned from here on; ended at once when the call fails.
    /// aFamily: NONE asks for both. aId: receives what Cancel takes; may be null.
    /// An address in aName is its own answer. CM_OK; CM_ERROR_INVALID_ARG: a null pointer, a limit
    /// of zero or less, or aName is no name (letters, digits, "-" and "_" in labels of at most 63
    /// with dots between them; one that ends in a number, as "1.2.3" does, is none either).
    /// CM_ERROR_OUT_OF_MEMORY, CM_ERROR_UNEXPECTED (no thread could be started).
    CmResult Resolve(std::string_view aName, ICmEventQueue* aQueue, ACmResolution* aAnswer,
                     const CCmTimeValue& aLimit, CCmIpAddress::Family aFamily = CCmIpAddress::NONE,
                     uint64_t* aId = nullptr);

    /// CM_OK: the answer has not been given and will not be, and aQueue is not used any more; the
    /// answer ends unfired, here or, when it was posted already, on its queue. CM_ERROR_NOT_FOUND:
    /// OnResolved was called; unless this is the thread of the queue, it may still be running.
    CmResult Cancel(uint64_t aId);

  private:
    struct CResolverState;
    CCmPrivateRoomT<CResolverState, 256> m_Private;
};

}  // namespace UTIL_NS

#endif  // CM_RESOLVER_H
