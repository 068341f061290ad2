// The exported objects that a host's static objects may use, in their constructors and in their
// destructors, also when the library is linked into the program; internal.
//
// None of them is ever destroyed. What the compiler can initialise is ready from the start; the
// rest is made by whoever comes first: a file of the host that includes a header of the library
// (CCmLibraryInit), or a function that needs it.
#ifndef CM_STATICS_H
#define CM_STATICS_H

namespace UTIL_NS {

// Returns with the rest made: g_kelto_config_file_name, g_rabbitmq_config_file_name, g_threadList,
// ccuLoc and ccuCvter. To be called before one of them is used. Any thread.
void CmMakeStatics();

}  // namespace UTIL_NS

#endif  // CM_STATICS_H
