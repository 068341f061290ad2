/// Where the library takes its atomic variables from.
/// \file
#ifndef CM_ATOMIC_H
#define CM_ATOMIC_H

#if defined(CM_ATOMIC_HEADER)
#include CM_ATOMIC_HEADER
#else

#include <atomic>

namespace UTIL_NS {

/// The library writes std::atomic as CmStd::atomic. Tests that decide which thread goes on at every
/// access (tests/schedule) put a class of their own in its place, in a build of their own: they
/// define CM_ATOMIC_HEADER as the header that has it. To be defined nowhere else.
namespace CmStd = std;

}  // namespace UTIL_NS

#endif

#endif  // CM_ATOMIC_H
