/// CCmLifeGuard: callables that run only while an object lives.
///
///     class CSession {
///         void Start() { CmPost(m_Worker, m_Guard.Wrap([this] { OnStarted(); })); }
///         ...
///         CCmLifeGuard m_Guard;   // the last member: it ends first
///     };
/// \file
#ifndef CM_LIFE_GUARD_H
#define CM_LIFE_GUARD_H

#include <type_traits>
#include <utility>

#include "CmBase.h"

namespace UTIL_NS {

template <class Function>
class CCmGuardedT;

/// To be a member of the object that its callables use, declared last, so that nothing of the
/// object has ended when the guard does; in a class with derived classes these call End first in
/// their destructors.
///
/// Whether a callable runs is decided on the thread that would run it, and without a race: once the
/// guard has ended no callable begins, and none runs on another thread any more. For those that run
/// at that moment the destructor waits, and for nothing else, neither for other events of their
/// threads nor for callables that are still on their way. So it must not be called with a lock that
/// such a callable takes, and two guards must not end each other from inside their callables on two
/// threads. A callable may end its own guard: it goes on to its end, without the object.
///
/// A callable that does not run is destroyed like any other: by its queue, perhaps after the object
/// has ended. Its captures must not touch the object when they are destroyed. While it runs its
/// thread is not cancelled, but afterwards. Wrapping costs no allocation; running costs a lock and
/// an unlock.
class CM_UTIL_EXPORT CCmLifeGuard {
  public:
    /// When memory runs out, the guard is one that has ended.
    CCmLifeGuard();
    /// Ends the guard, as End does.
    ~CCmLifeGuard();
    CCmLifeGuard(const CCmLifeGuard&) = delete;
    CCmLifeGuard& operator=(const CCmLifeGuard&) = delete;

    /// From now on no callable begins; waits for those that run on other threads. May be called
    /// more than once, by one thread at a time.
    void End();
    /// CM_OK; CM_ERROR_OUT_OF_MEMORY from the construction on; CM_ERROR_NOT_INITIALIZED: ended.
    CmResult Result() const;

    /// The callable that CmPost and the others take: runs aFunction with the arguments that it is
    /// called with while the guard lives, and returns whether it ran. Any thread may run it.
    template <class Callable>
    auto Wrap(Callable&& aFunction) const;

  private:
    template <class Function>
    friend class CCmGuardedT;

    // What the wrapped callables share with the guard.
    struct CM_UTIL_HIDDEN CGuardState;
    // One reference to it; of none when memory ran out.
    class CM_UTIL_EXPORT CReference {
      public:
        explicit CReference(CGuardState* aState);
        CReference(const CReference& aRight) : CReference(aRight.m_pState) {}
        CReference(CReference&& aRight) noexcept
            : m_pState(std::exchange(aRight.m_pState, nullptr)) {}
        CReference& operator=(const CReference&) = delete;
        ~CReference();

        CGuardState* m_pState;
    };
    // One run of a callable, on the stack of its thread. It is in the guard's list meanwhile.
    class CM_UTIL_EXPORT CRun {
      public:
        // Begins, unless the guard has ended.
        explicit CRun(const CReference& aReference);
        ~CRun();
        CRun(const CRun&) = delete;
        CRun& operator=(const CRun&) = delete;

        // Whether the guard lived when this was constructed.
        bool IsAllowed() const { return m_bAllowed; }

      private:
        friend struct CGuardState;

        const CReference m_Reference;
        unsigned long m_ulThread;  // a number that no other thread gets
        CRun* m_pNext;
        int m_nCancelState;
        bool m_bAllowed;
    };

    CGuardState* m_pState;
};

/// What Wrap returns. Copies and what it was moved to are guarded alike.
template <class Function>
class CCmGuardedT {
  public:
    /// Holds a reference on the guard's state. For Wrap, which makes it.
    template <class Callable>
    CCmGuardedT(const CCmLifeGuard::CReference& aReference, Callable&& aFunction)
        : m_Reference(aReference), m_Function(std::forward<Callable>(aFunction)) {}

    /// Runs the callable while the guard lives; whether it did.
    template <class... Args>
    auto operator()(Args&&... aArgs)
        -> std::enable_if_t<std::is_invocable_v<Function&, Args...>, bool> {
        const CCmLifeGuard::CRun run(m_Reference);
        if (run.IsAllowed()) {
            m_Function(std::forward<Args>(aArgs)...);
        }
        return run.IsAllowed();
    }

  private:
    CCmLifeGuard::CReference m_Reference;
    Function m_Function;
};

template <class Callable>
auto CCmLifeGuard::Wrap(Callable&& aFunction) const {
    return CCmGuardedT<std::decay_t<Callable>>(CReference(m_pState),
                                               std::forward<Callable>(aFunction));
}

}  // namespace UTIL_NS

#endif  // CM_LIFE_GUARD_H
