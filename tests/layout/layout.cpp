// Every class whose layout is checked, in one object file; layout.py says how to add one. Public
// classes are here already; classes of internal headers and templates that the headers do not
// instantiate are named below.
#include "kelto_util.h"

template struct UTIL_NS::CCmTimerQueueCalendarSlotT<UTIL_NS::ICmTimerHandler*>;
