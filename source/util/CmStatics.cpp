#include "CmStatics.h"

#include <list>
#include <locale>
#include <new>
#include <string>
#include <utility>

#include "CmBase.h"
#include "CmConditionVariable.h"

// Defines a variable under the name that the declaration in the public header has in object files:
// hosts see a T, here is storage for a T that is never destroyed.
#define CM_TEXT_OF_(x) #x
#define CM_TEXT_OF(x) CM_TEXT_OF_(x)
#define CM_NAMED(aMangled) __asm__(CM_TEXT_OF(__USER_LABEL_PREFIX__) aMangled)

// What the GNU library adds to the names of variables of its string and list types.
#if defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI
#define CM_NAME_TAG "B5cxx11"
#else
#define CM_NAME_TAG ""
#endif

namespace UTIL_NS {

class ACmThread;

// Constant-initialised, and never destroyed: a union does not destroy its member.
template <class T>
union CReadyStorageT {
    constexpr CReadyStorageT() : m_Object(CCmStaticInit()) {}
    ~CReadyStorageT() {}

    T m_Object;
};

CM_CONSTANT_INIT CM_UTIL_EXPORT CReadyStorageT<CCmMutexThreadRecursive> g_readySingletonMutex
    CM_NAMED("_ZN7UTIL_NS16g_SingletonMutexE");

CM_CONSTANT_INIT CM_UTIL_EXPORT CReadyStorageT<CCmMutexThread> g_readyReferenceMutex
    CM_NAMED("_ZN7UTIL_NS29s_ReferenceControlMutexThreadE");

CM_CONSTANT_INIT CM_UTIL_EXPORT CReadyStorageT<CCmMutexThread> g_readyThreadMutex
    CM_NAMED("_ZN7UTIL_NS14g_thread_MutexE");

CM_CONSTANT_INIT CM_UTIL_EXPORT CReadyStorageT<CCmMutexThread> g_readyGeneratorMutex
    CM_NAMED("_ZN7UTIL_NS15low_tick_policy18low_tick_generator5mutexE");

// All zeros until CmMakeStatics has made the object; never destroyed.
template <class T>
struct CMadeStorageT {
    template <class... Args>
    void Make(Args&&... aArgs) {
        new (m_abyObject) T(std::forward<Args>(aArgs)...);
    }

    alignas(T) unsigned char m_abyObject[sizeof(T)];
};

CM_UTIL_EXPORT CMadeStorageT<CCmString> g_madeConfigFileName
    CM_NAMED("_ZN7UTIL_NS24g_kelto_config_file_name" CM_NAME_TAG "E");

CM_UTIL_EXPORT CMadeStorageT<CCmString> g_madeRabbitmqFileName
    CM_NAMED("_ZN7UTIL_NS27g_rabbitmq_config_file_name" CM_NAME_TAG "E");

CM_UTIL_EXPORT CMadeStorageT<std::list<ACmThread*>> g_madeThreadList
    CM_NAMED("_ZN7UTIL_NS12g_threadList" CM_NAME_TAG "E");

CM_UTIL_EXPORT CMadeStorageT<std::locale> g_madeLocale CM_NAMED("_ZN7UTIL_NS6ccuLocE");

// Declared to hosts as a reference, which lies in memory as a pointer.
typedef std::codecvt<wchar_t, char, std::mbstate_t> CodecvtType;
CM_UTIL_EXPORT const CodecvtType* g_madeCodecvt CM_NAMED("_ZN7UTIL_NS8ccuCvterE") = nullptr;

namespace {

// Without memory for aText the name is empty.
void MakeText(CMadeStorageT<CCmString>& aStorage, const char* aText) {
    try {
        aStorage.Make(aText);
    } catch (const std::bad_alloc&) {
        aStorage.Make();
    }
}

bool MakeAll() {
    MakeText(g_madeConfigFileName, "kelto.cfg");
    MakeText(g_madeRabbitmqFileName, "rabbitmq-config.xml");
    g_madeThreadList.Make();
    g_madeLocale.Make(std::locale::classic());
    g_madeCodecvt = &std::use_facet<CodecvtType>(std::locale::classic());
    return true;
}

}  // namespace

void CmMakeStatics() {
    [[maybe_unused]] static const bool s_bMade = MakeAll();
}

CCmLibraryInit::CCmLibraryInit() {
    CmMakeStatics();
}

}  // namespace UTIL_NS
