/// Reference counts, the smart pointer over them, singletons and trimming.
/// \file
#ifndef CM_UTIL_TEMPLATES_H
#define CM_UTIL_TEMPLATES_H

#include <new>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmConditionVariable.h"
#include "CmTrace.h"
#include "CmUtilClasses.h"

namespace UTIL_NS {

/// Selects the count without a lock, for objects that never leave their thread.
class CCmMutexNullSingleThread {};

/// Base of objects that are freed when their last reference is released. The count starts at 0; the
/// caller must not touch the object after ReleaseReference returned 0. Releasing a count that is
/// 0 already makes it negative and destroys nothing.
template <class MutexType>
class CCmReferenceControlT;

/// The thread-safe count: any thread may add and release; the object is destroyed on the thread
/// that released the last reference, which then sees all that the others did before.
template <>
class CM_UTIL_EXPORT CCmReferenceControlT<CCmMutexThread> {
  public:
    /// No reference yet.
    CCmReferenceControlT() = default;
    /// For OnReferenceDestory: users release references.
    virtual ~CCmReferenceControlT();

    /// Adds one; returns the new count.
    virtual uint32_t AddReference() { return static_cast<uint32_t>(++m_lCount); }
    /// Takes one; returns the new count. When that is 0, OnReferenceDestory was called.
    virtual uint32_t ReleaseReference() {
        const uint32_t dwCount = m_lCount.ReleaseOnly() ? 0 : static_cast<uint32_t>(--m_lCount);
        if (dwCount == 0) {
            OnReferenceDestory();
        }
        return dwCount;
    }
    /// The count; may be outdated when it is read.
    virtual uint32_t GetReference() { return static_cast<uint32_t>(m_lCount.value()); }
    /// Called when the count reaches 0; deletes the object.
    virtual void OnReferenceDestory();

  protected:
    /// With aCount references from the start.
    explicit CCmReferenceControlT(long aCount) : m_lCount(aCount) {}

  private:
    CCmAtomicOperationT<CCmMutexThread> m_lCount;
};

/// The single-thread count: all calls on one thread.
template <>
class CM_UTIL_EXPORT CCmReferenceControlT<CCmMutexNullSingleThread> {
  public:
    /// No reference yet.
    CCmReferenceControlT() = default;
    /// For OnReferenceDestory: users release references.
    virtual ~CCmReferenceControlT();
    CCmReferenceControlT(const CCmReferenceControlT&) = delete;
    CCmReferenceControlT& operator=(const CCmReferenceControlT&) = delete;

    /// Adds one; returns the new count.
    virtual uint32_t AddReference();
    /// Takes one; returns the new count. When that is 0, OnReferenceDestory was called.
    virtual uint32_t ReleaseReference();
    /// The count.
    virtual uint32_t GetReference();
    /// Called when the count reaches 0; deletes the object.
    virtual void OnReferenceDestory();

  private:
    CCmEnsureSingleThread m_Guard;
    long m_lCount = 0;
};

/// Holds one reference on its object.
template <class T>
class CCmComAutoPtr {
  public:
    /// Takes a reference on aPtr, which may be null.
    CCmComAutoPtr(T* aPtr = nullptr) : m_pRawPtr(aPtr) {
        if (m_pRawPtr != nullptr) {
            m_pRawPtr->AddReference();
        }
    }
    /// Takes a reference on the same object.
    CCmComAutoPtr(const CCmComAutoPtr& aRight) : CCmComAutoPtr(aRight.m_pRawPtr) {}
    /// Releases the reference, if it holds one.
    ~CCmComAutoPtr() {
        if (m_pRawPtr != nullptr) {
            m_pRawPtr->ReleaseReference();
        }
    }

    /// Takes the new reference before it drops the old one, so that a chain in which the old
    /// object owns the new one stays alive. It stores the new object before it releases the old
    /// one, whose destructor may therefore look at this pointer or assign to it.
    CCmComAutoPtr& operator=(T* aPtr) {
        if (m_pRawPtr == aPtr) {
            return *this;
        }
        if (aPtr != nullptr) {
            aPtr->AddReference();
        }
        T* pOld = m_pRawPtr;
        m_pRawPtr = aPtr;
        if (pOld != nullptr) {
            pOld->ReleaseReference();
        }
        return *this;
    }
    /// The same with the object of aRight.
    CCmComAutoPtr& operator=(const CCmComAutoPtr& aRight) { return *this = aRight.m_pRawPtr; }

    /// Holds aPtr by the reference that the caller took on it, instead of taking one more.
    void Attach(T* aPtr) {
        T* pOld = m_pRawPtr;
        m_pRawPtr = aPtr;
        if (pOld != nullptr) {
            pOld->ReleaseReference();
        }
    }

    /// The object, null without one; no reference is taken.
    operator T*() const { return m_pRawPtr; }
    /// The object; there must be one.
    T* operator->() const { return m_pRawPtr; }
    /// The object; there must be one.
    T& operator*() const { return *m_pRawPtr; }
    /// The object, null without one, as an argument; no reference is taken.
    T* ParaIn() const { return m_pRawPtr; }

  private:
    T* m_pRawPtr;
};

/// A process-wide object created on first use and destroyed by CCmCleanUpBase::CleanupAll (never
/// at process exit). After CleanupAll, Instance creates a new one.
template <class T>
class CM_UTIL_EXPORT CCmSingletonT : public CCmCleanUpBase {
  public:
    /// The one T, created under the singleton mutex; null when memory ran out or the construction
    /// of T threw (an assertion line says so). Any thread; no lock once it exists.
    static T* Instance();

  private:
    CCmSingletonT() = default;
    ~CCmSingletonT() override;

    static void Create();

    T m_Instance;
    // Published with release by the creator and read with acquire by Instance: T is constructed
    // before it is used.
    static CmStd::atomic<CCmSingletonT*> m_psInstance;
};

/// For CCmSingletonT: calls aCreate with the singleton mutex held; catches what it throws.
CM_UTIL_EXPORT void CmCreateSingleton(void (*aCreate)());

/// For CCmSingletonT: writes the info line of its destruction.
CM_UTIL_EXPORT void CmTraceSingletonEnd(void* aInstance, void* aThis);

template <class T>
CmStd::atomic<CCmSingletonT<T>*> CCmSingletonT<T>::m_psInstance{nullptr};

template <class T>
T* CCmSingletonT<T>::Instance() {
    if (CCmSingletonT* pInstance = m_psInstance.load(std::memory_order_acquire)) {
        return &pInstance->m_Instance;
    }
    CmCreateSingleton(&Create);
    CCmSingletonT* const pCreated = m_psInstance.load(std::memory_order_acquire);
    CM_ASSERTE_RETURN_(pCreated != nullptr, "m_psInstance", nullptr, "include/CmUtilTemplates.h",
                       58);
    return &pCreated->m_Instance;
}

template <class T>
void CCmSingletonT<T>::Create() {
    if (m_psInstance.load(std::memory_order_relaxed) == nullptr) {
        m_psInstance.store(new (std::nothrow) CCmSingletonT, std::memory_order_release);
    }
}

template <class T>
CCmSingletonT<T>::~CCmSingletonT() {
    CmTraceSingletonEnd(m_psInstance.load(std::memory_order_relaxed), this);
    m_psInstance.store(nullptr, std::memory_order_relaxed);
}

/// The predicate of the trimming templates: the blank (0x20) only; tabs and line ends are kept.
class CCmIsSpace {
  public:
    /// True for a blank and nothing else.
    bool operator()(char aChar) const { return aChar == ' '; }
};

/// Removes the characters at the start for which aPredicate holds.
template <class Predicate>
void LTrimString(CCmString& aText, Predicate aPredicate) {
    size_t nStart = 0;
    while (nStart < aText.size() && aPredicate(aText[nStart])) {
        ++nStart;
    }
    aText.erase(0, nStart);
}

/// Removes the characters at the end for which aPredicate holds.
template <class Predicate>
void RTrimString(CCmString& aText, Predicate aPredicate) {
    size_t nEnd = aText.size();
    while (nEnd > 0 && aPredicate(aText[nEnd - 1])) {
        --nEnd;
    }
    aText.erase(nEnd);
}

}  // namespace UTIL_NS

#endif  // CM_UTIL_TEMPLATES_H
