// Tells Helgrind what atomic operations order, which it cannot know: machine code does not say that
// an access is atomic. Code that is compiled with -fsanitize=thread calls the functions below in
// their place, and others, which do nothing, beside its usual accesses.
#include <sched.h>
#include <valgrind/helgrind.h>

#include <cstddef>
#include <cstdint>

namespace {

bool Acquires(int aOrder) {
    return aOrder != __ATOMIC_RELAXED && aOrder != __ATOMIC_RELEASE;
}

bool Releases(int aOrder) {
    return aOrder == __ATOMIC_RELEASE || aOrder == __ATOMIC_ACQ_REL || aOrder == __ATOMIC_SEQ_CST;
}

// Keeps an operation and what is said of it together.
volatile char s_chTaken = 0;

template <class Value, class Operation>
auto Ordered(const volatile Value* aPlace, int aOrder, Operation aOperation) {
    VALGRIND_HG_DISABLE_CHECKING(&s_chTaken, sizeof(s_chTaken));
    VALGRIND_HG_DISABLE_CHECKING(aPlace, sizeof(*aPlace));
    while (__atomic_test_and_set(&s_chTaken, __ATOMIC_ACQUIRE)) {
        sched_yield();
    }
    // A new "before" replaces the earlier ones, which it must therefore come after.
    if (Acquires(aOrder) || Releases(aOrder)) {
        ANNOTATE_HAPPENS_AFTER(aPlace);
    }
    if (Releases(aOrder)) {
        ANNOTATE_HAPPENS_BEFORE(aPlace);
    }
    const auto result = aOperation();
    __atomic_clear(&s_chTaken, __ATOMIC_RELEASE);
    return result;
}

// The guard of a local static variable: its first byte says that the variable is there, the second
// that a thread is at it.
constexpr uint16_t GUARD_READY = 1;
constexpr uint16_t GUARD_TAKEN = 0x100;

}  // namespace

#define ATOMIC_UPDATE(bits, name)                                                          \
    uint##bits##_t __tsan_atomic##bits##_##name(volatile uint##bits##_t* aPlace,           \
                                                uint##bits##_t aValue, int aOrder) {       \
        return Ordered(aPlace, aOrder,                                                     \
                       [&] { return __atomic_##name(aPlace, aValue, __ATOMIC_SEQ_CST); }); \
    }

#define ATOMIC_COMPARE_EXCHANGE(bits, strength)                                                    \
    int __tsan_atomic##bits##_compare_exchange_##strength(                                         \
        volatile uint##bits##_t* aPlace, uint##bits##_t* aExpected, uint##bits##_t aValue,         \
        int aOrder, int /*aOrderOfFailure*/) {                                                     \
        return Ordered(aPlace, aOrder, [&] {                                                       \
            return __atomic_compare_exchange_n(aPlace, aExpected, aValue, false, __ATOMIC_SEQ_CST, \
                                               __ATOMIC_SEQ_CST);                                  \
        });                                                                                        \
    }

#define ATOMICS(bits)                                                                              \
    uint##bits##_t __tsan_atomic##bits##_load(const volatile uint##bits##_t* aPlace, int aOrder) { \
        return Ordered(aPlace, aOrder, [&] { return __atomic_load_n(aPlace, __ATOMIC_SEQ_CST); }); \
    }                                                                                              \
    void __tsan_atomic##bits##_store(volatile uint##bits##_t* aPlace, uint##bits##_t aValue,       \
                                     int aOrder) {                                                 \
        Ordered(aPlace, aOrder, [&] {                                                              \
            __atomic_store_n(aPlace, aValue, __ATOMIC_SEQ_CST);                                    \
            return true;                                                                           \
        });                                                                                        \
    }                                                                                              \
    uint##bits##_t __tsan_atomic##bits##_exchange(volatile uint##bits##_t* aPlace,                 \
                                                  uint##bits##_t aValue, int aOrder) {             \
        return Ordered(aPlace, aOrder,                                                             \
                       [&] { return __atomic_exchange_n(aPlace, aValue, __ATOMIC_SEQ_CST); });     \
    }                                                                                              \
    ATOMIC_UPDATE(bits, fetch_add)                                                                 \
    ATOMIC_UPDATE(bits, fetch_sub)                                                                 \
    ATOMIC_UPDATE(bits, fetch_or)                                                                  \
    ATOMIC_UPDATE(bits, fetch_and)                                                                 \
    ATOMIC_COMPARE_EXCHANGE(bits, strong)                                                          \
    ATOMIC_COMPARE_EXCHANGE(bits, weak)

// Helgrind sees these accesses itself.
#define ACCESS(name) \
    void __tsan_##name(void*) {}

extern "C" {

ATOMICS(8)
ATOMICS(16)
ATOMICS(32)
ATOMICS(64)

ACCESS(read1)
ACCESS(read2)
ACCESS(read4)
ACCESS(read8)
ACCESS(read16)
ACCESS(write1)
ACCESS(write2)
ACCESS(write4)
ACCESS(write8)
ACCESS(write16)
ACCESS(func_entry)
void __tsan_read_range(void*, size_t) {}
void __tsan_write_range(void*, size_t) {}
void __tsan_func_exit() {}
void __tsan_init() {}

// A destructor first writes the pointer to the virtual functions once more. The same value may meet
// a call by a thread for which the destructor is about to wait.
void __tsan_vptr_update(void** aPlace, void* aValue) {
    if (*aPlace == aValue) {
        VALGRIND_HG_DISABLE_CHECKING(aPlace, sizeof(*aPlace));
    }
}

// The compiled code looks at the first byte itself, by an acquiring load, and calls these without
// finding it set. The C++ library's own are not compiled for Helgrind.
int __cxa_guard_acquire(volatile uint16_t* aGuard) {
    for (;;) {
        const uint16_t wFound = Ordered(aGuard, __ATOMIC_ACQUIRE, [aGuard] {
            const uint16_t wState = *aGuard;
            *aGuard = wState == 0 ? GUARD_TAKEN : wState;
            return wState;
        });
        if (wFound != GUARD_TAKEN) {
            return wFound == 0 ? 1 : 0;
        }
        sched_yield();
    }
}

void __cxa_guard_release(volatile uint16_t* aGuard) {
    __tsan_atomic16_store(aGuard, GUARD_READY, __ATOMIC_RELEASE);
}

void __cxa_guard_abort(volatile uint16_t* aGuard) {
    __tsan_atomic16_store(aGuard, 0, __ATOMIC_RELEASE);
}
}
