// What the loader knows of its own process.
#ifndef MAC_RUN_PROCESSES_H
#define MAC_RUN_PROCESSES_H

#include <string>

namespace kelto_mac {

// The file of the loader itself.
std::string LoaderPath();

}  // namespace kelto_mac

#endif  // MAC_RUN_PROCESSES_H
