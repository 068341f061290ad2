// The class in the place of std::atomic in the build of the library that is scheduled: it asks the
// scheduler before every access. See include/CmAtomic.h.
#ifndef TESTS_SCHEDULE_ATOMIC_H
#define TESTS_SCHEDULE_ATOMIC_H

#include <atomic>
#include <type_traits>

namespace kelto_test {

enum class EAccess : unsigned char { LOAD, STORE, EXCHANGE };

// True while one of the scheduler's threads runs.
extern bool g_bScheduled;
// Where the scheduler decides who goes on.
void BeforeAccess(const void* aVariable, EAccess aAccess);

}  // namespace kelto_test

namespace UTIL_NS {

namespace CmStd {

template <class ValueType>
class atomic {
  public:
    constexpr atomic() noexcept : m_Value() {}
    constexpr atomic(ValueType aValue) noexcept : m_Value(aValue) {}
    atomic(const atomic&) = delete;
    atomic& operator=(const atomic&) = delete;

    ValueType load(std::memory_order aOrder = std::memory_order_seq_cst) const {
        Ask(kelto_test::EAccess::LOAD);
        return m_Value.load(aOrder);
    }
    operator ValueType() const { return load(); }
    void store(ValueType aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::STORE);
        m_Value.store(aValue, aOrder);
    }
    ValueType operator=(ValueType aValue) {
        store(aValue);
        return aValue;
    }
    ValueType exchange(ValueType aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.exchange(aValue, aOrder);
    }
    bool compare_exchange_strong(ValueType& aExpected, ValueType aValue,
                                 std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.compare_exchange_strong(aExpected, aValue, aOrder);
    }
    bool compare_exchange_strong(ValueType& aExpected, ValueType aValue, std::memory_order aOrder,
                                 std::memory_order aOrderOfFailure) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.compare_exchange_strong(aExpected, aValue, aOrder, aOrderOfFailure);
    }
    // Never fails without a reason here.
    bool compare_exchange_weak(ValueType& aExpected, ValueType aValue,
                               std::memory_order aOrder = std::memory_order_seq_cst) {
        return compare_exchange_strong(aExpected, aValue, aOrder);
    }
    bool compare_exchange_weak(ValueType& aExpected, ValueType aValue, std::memory_order aOrder,
                               std::memory_order aOrderOfFailure) {
        return compare_exchange_strong(aExpected, aValue, aOrder, aOrderOfFailure);
    }
    template <class Type>
    ValueType fetch_add(Type aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.fetch_add(aValue, aOrder);
    }
    template <class Type>
    ValueType fetch_sub(Type aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.fetch_sub(aValue, aOrder);
    }
    ValueType fetch_or(ValueType aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.fetch_or(aValue, aOrder);
    }
    ValueType fetch_and(ValueType aValue, std::memory_order aOrder = std::memory_order_seq_cst) {
        Ask(kelto_test::EAccess::EXCHANGE);
        return m_Value.fetch_and(aValue, aOrder);
    }
    ValueType operator++() { return fetch_add(1) + 1; }
    ValueType operator--() { return fetch_sub(1) - 1; }
    ValueType operator++(int) { return fetch_add(1); }
    ValueType operator--(int) { return fetch_sub(1); }

  private:
    void Ask(kelto_test::EAccess aAccess) const {
        if (kelto_test::g_bScheduled) {
            kelto_test::BeforeAccess(this, aAccess);
        }
    }

    std::atomic<ValueType> m_Value;
};

}  // namespace CmStd

}  // namespace UTIL_NS

#endif  // TESTS_SCHEDULE_ATOMIC_H
