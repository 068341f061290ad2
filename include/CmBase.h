/// Result codes and the types that every other header uses.
///
/// Everything of the library lives in the namespace UTIL_NS, except the functions that are
/// exported under plain names (C linkage), which are declared at file scope.
/// \file
#ifndef CM_BASE_H
#define CM_BASE_H

#include <cstdint>
#include <string>

/// Marks what the shared library exports; everything else is hidden.
#define CM_UTIL_EXPORT __attribute__((visibility("default")))
/// Marks a step of an exported class that only the library calls.
#define CM_UTIL_HIDDEN __attribute__((visibility("hidden")))

#if defined(__clang__)
#define CM_CONSTANT_INIT [[clang::require_constant_initialization]]
#else
/// Before a static object: the compiler must initialise it, so that it may be used before any other
/// static object is constructed.
#define CM_CONSTANT_INIT __constinit
#endif

/// The condition x, for the compiler one that mostly holds.
#define CM_LIKELY(x) __builtin_expect(!!(x), 1)
/// The condition x, for the compiler one that mostly does not hold.
#define CM_UNLIKELY(x) __builtin_expect(!!(x), 0)

namespace UTIL_NS {

/// Every file that includes a header of the library holds one, so that the library's static objects
/// are ready before those of the file are constructed, also when the library is linked into the
/// program.
class CM_UTIL_EXPORT CCmLibraryInit {
  public:
    /// Makes those objects ready, unless they are.
    CCmLibraryInit();
};
/// That of the file that includes this header.
static const CCmLibraryInit s_cmLibraryInit;

/// The library's string type: a byte string, no encoding implied.
typedef std::string CCmString;

#ifndef DWORD
/// A 32-bit unsigned number. Not declared where a host has a macro of this name, which must then
/// stand for the same type.
typedef uint32_t DWORD;
#endif

/// Result of every operation that can fail: 0 or one of the codes below. No operation throws.
typedef int32_t CmResult;

/// Success.
constexpr CmResult CM_OK = 0;
/// The number that error codes count from; no result itself.
constexpr CmResult CM_ERROR_BASE = 0x42004000;
/// A system call failed, a locked block refused, a bounds check failed.
constexpr CmResult CM_ERROR_FAILURE = CM_ERROR_BASE + 1;
/// A stopped event queue refuses; a fixed data block has no read or write pointer.
constexpr CmResult CM_ERROR_NOT_INITIALIZED = CM_ERROR_BASE + 2;
/// The thread object has been created before.
constexpr CmResult CM_ERROR_ALREADY_INITIALIZED = CM_ERROR_BASE + 3;
/// The base class offers no such operation.
constexpr CmResult CM_ERROR_NOT_IMPLEMENTED = CM_ERROR_BASE + 4;
/// A synchronous event has no target event; a timer wrapper has no timer queue.
constexpr CmResult CM_ERROR_NULL_POINTER = CM_ERROR_BASE + 5;
/// The thread could not be created.
constexpr CmResult CM_ERROR_UNEXPECTED = CM_ERROR_BASE + 6;
/// An allocation failed.
constexpr CmResult CM_ERROR_OUT_OF_MEMORY = CM_ERROR_BASE + 7;
/// A null event, handler or buffer, a zero size, an invalid timer interval.
constexpr CmResult CM_ERROR_INVALID_ARG = CM_ERROR_BASE + 8;
/// A synchronous event has not run; a block has too little room.
constexpr CmResult CM_ERROR_NOT_AVAILABLE = CM_ERROR_BASE + 9;
// CM_ERROR_BASE + 10 is never returned; the number stays free.

/// Nothing is pending; a thread or a timer handler is not in its list.
constexpr CmResult CM_ERROR_NOT_FOUND = CM_ERROR_BASE + 11;
/// The timer handler is scheduled already.
constexpr CmResult CM_ERROR_FOUND = CM_ERROR_BASE + 12;
/// Only part of the requested bytes could be read or written.
constexpr CmResult CM_ERROR_PARTIAL_DATA = CM_ERROR_BASE + 13;
/// A timed wait expired.
constexpr CmResult CM_ERROR_TIMEOUT = CM_ERROR_BASE + 14;

/// Whether a CmResult is success.
#define CM_SUCCEEDED(rv) ((rv) == 0)
/// Whether a CmResult is any of the errors.
#define CM_FAILED(rv) ((rv) != 0)

}  // namespace UTIL_NS

#endif  // CM_BASE_H
