// Thread-local variables of images.
#ifndef MAC_RUN_THREAD_LOCALS_H
#define MAC_RUN_THREAD_LOCALS_H

#include "Image.h"

namespace kelto_mac {

// Points the image's records of thread-local variables to the loader.
void PrepareThreadLocals(const Image& aImage);
// Runs the destructors that the thread has registered, the last first, and those that these
// register.
void DestroyThreadLocals();
// Frees the thread's copies; nothing of the program may run on it any more.
void FreeThreadLocals();

}  // namespace kelto_mac

#endif  // MAC_RUN_THREAD_LOCALS_H
