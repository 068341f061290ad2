// Where the two systems number the same thing differently: error codes, signals, clocks.
#ifndef MAC_RUN_NUMBERS_H
#define MAC_RUN_NUMBERS_H

#include <stddef.h>

namespace kelto_mac {

// Equal numbers of the target and of this system.
struct Pair {
    int target;
    int host;
};

// -1: not in the table.
template <size_t N>
int ToTarget(const Pair (&aTable)[N], int aHost) {
    for (const Pair& pair : aTable) {
        if (pair.host == aHost) {
            return pair.target;
        }
    }
    return -1;
}
template <size_t N>
int ToHost(const Pair (&aTable)[N], int aTarget) {
    for (const Pair& pair : aTable) {
        if (pair.target == aTarget) {
            return pair.host;
        }
    }
    return -1;
}
// Of flags: those in the table, translated; the others are lost.
template <size_t N>
int FlagsToTarget(const Pair (&aTable)[N], int aHost) {
    int nFlags = 0;
    for (const Pair& pair : aTable) {
        nFlags |= (aHost & pair.host) == pair.host ? pair.target : 0;
    }
    return nFlags;
}
template <size_t N>
int FlagsToHost(const Pair (&aTable)[N], int aTarget) {
    int nFlags = 0;
    for (const Pair& pair : aTable) {
        nFlags |= (aTarget & pair.target) == pair.target ? pair.host : 0;
    }
    return nFlags;
}

int ErrorToTarget(int aHost);
int ErrorToHost(int aTarget);
int SignalToTarget(int aHost);
int SignalToHost(int aTarget);

}  // namespace kelto_mac

#endif  // MAC_RUN_NUMBERS_H
