// The standard streams: the target's variables hold the addresses of their objects, whose insides
// only this system's functions touch.
#include <stdio.h>

#include "Supply.h"

namespace kelto_mac {

void SupplyStreams() {
    Supply({
        {"___stdinp", &stdin},
        {"___stdoutp", &stdout},
        {"___stderrp", &stderr},
    });
}

}  // namespace kelto_mac
