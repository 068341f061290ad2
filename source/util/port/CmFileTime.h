// The time of a file's last change, whose field platforms name differently; internal.
#ifndef CM_FILE_TIME_H
#define CM_FILE_TIME_H

#include <sys/stat.h>
#include <time.h>

namespace UTIL_NS {

// The first of these that the platform's record allows: macOS, then POSIX.
template <class Stat>
auto CmFileTimeOf(const Stat& aStat, int) -> decltype(timespec(aStat.st_mtimespec)) {
    return aStat.st_mtimespec;
}
template <class Stat>
auto CmFileTimeOf(const Stat& aStat, long) -> decltype(timespec(aStat.st_mtim)) {
    return aStat.st_mtim;
}

inline timespec CmFileTime(const struct stat& aStat) {
    return CmFileTimeOf(aStat, 0);
}

}  // namespace UTIL_NS

#endif  // CM_FILE_TIME_H
