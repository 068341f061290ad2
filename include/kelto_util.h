// The whole public interface of kelto_util.
#ifndef KELTO_UTIL_H
#define KELTO_UTIL_H

#include "CmAddress.h"
#include "CmBase.h"
#include "CmChrono.h"
#include "CmClock.h"
#include "CmConditionVariable.h"
#include "CmConfig.h"
#include "CmDataBlock.h"
#include "CmEncoding.h"
#include "CmEventQueueBase.h"
#include "CmHttpUrl.h"
#include "CmLogStream.h"
#include "CmMessageBlock.h"
#include "CmPlatform.h"
#include "CmScopedLock.h"
#include "CmT120Trace.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "CmThreadAnnotations.h"
#include "CmTimeValue.h"
#include "CmTimerQueueBase.h"
#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTimerWrapper.h"
#include "CmTrace.h"
#include "CmUtilClasses.h"
#include "CmUtilMisc.h"
#include "CmUtilTemplates.h"
#include "CmXml.h"

#endif  // KELTO_UTIL_H
