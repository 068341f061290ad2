// Reference counts and the pointer over them.

#include "CmUtilTemplates.h"
#include "Row.h"
#if KELTO_WITH_BOOST
#include <boost/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#endif
#if KELTO_WITH_POCO
#include <Poco/AutoPtr.h>
#include <Poco/RefCountedObject.h>
#endif

#include <memory>

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "reference count";
constexpr char WORK[] = "count up + down";

class Counted : public CCmReferenceControlT<CCmMutexThread> {
  public:
    int m_nValue = 1;
};

// Copies the pointer and drops the copy.
template <typename Pointer>
void CopyAndDrop(benchmark::State& aState, const Pointer& aPointer) {
    long lSum = 0;
    for (auto _ : aState) {
        Pointer copy(aPointer);
        Touch(&copy);
        lSum += copy->m_nValue;
    }
    Check(lSum == static_cast<long>(aState.iterations()), AREA);
    CountItems(aState);
}

const Row s_ours(AREA, WORK, OURS, [](benchmark::State& aState) {
    CCmComAutoPtr<Counted> pCounted(new Counted);
    CopyAndDrop(aState, pCounted);
    Check(pCounted->GetReference() == 1, AREA);
});

struct Plain {
    int m_nValue = 1;
};

const Row s_shared(AREA, WORK, "std::shared_ptr", [](benchmark::State& aState) {
    CopyAndDrop(aState, std::make_shared<Plain>());
});

#if KELTO_WITH_BOOST
struct BoostCounted : boost::intrusive_ref_counter<BoostCounted, boost::thread_safe_counter> {
    int m_nValue = 1;
};

const Row s_boost(AREA, WORK, "Boost.intrusive_ptr", [](benchmark::State& aState) {
    CopyAndDrop(aState, boost::intrusive_ptr<BoostCounted>(new BoostCounted));
});
#endif

#if KELTO_WITH_POCO
struct PocoCounted : Poco::RefCountedObject {
    int m_nValue = 1;
};

const Row s_poco(AREA, WORK, "POCO AutoPtr", [](benchmark::State& aState) {
    CopyAndDrop(aState, Poco::AutoPtr<PocoCounted>(new PocoCounted));
});
#endif

}  // namespace
