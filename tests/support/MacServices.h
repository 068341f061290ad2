// A fake of the macOS desktop services, so that the macOS platform file can be driven elsewhere.
#ifndef TESTS_SUPPORT_MAC_SERVICES_H
#define TESTS_SUPPORT_MAC_SERVICES_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "port/CmMacServices.h"
#include "support/Faults.h"

namespace kelto_test {

// The services, by name, that can be made to fail.
enum class MacService {
    NONE,
    LOAD_PROCESS_SERVICES,
    FIND_GET_PROCESS_INFORMATION,
    GET_PROCESS_INFORMATION,
    FS_GET_CATALOG_INFO,
    FS_MAKE_FSREF_UNICODE,
    FS_REF_MAKE_PATH,
    FS_PATH_MAKE_REF,
    LS_COPY_ITEM_INFO,
    CF_URL_CREATE,
    CF_BUNDLE_CREATE,
    CF_STRING_CREATE,
};

// While it lives, the services act on these files. Arguments that the real services would refuse,
// a release of something that is not alive and, at the end, an object that was not released are
// test failures. One at a time.
class ScopedMacServices {
  public:
    ScopedMacServices();
    ~ScopedMacServices();
    ScopedMacServices(const ScopedMacServices&) = delete;
    ScopedMacServices& operator=(const ScopedMacServices&) = delete;

    // The running application and its name in the catalog.
    void SetApplication(const std::string& aPath, const std::u16string& aName);
    void AddFile(const std::string& aPath) { m_files.insert(aPath); }
    // A bundle that exports aNames.
    void AddBundle(const std::string& aPath, const std::set<std::string>& aNames);
    // From its aNth call on (counted from 1) a service fails.
    void Fail(MacService aService, int aNth = 1);

    // Created and not yet released.
    size_t objects() const { return m_objects.size(); }
    // The paths of which a reference was wanted, in order.
    const std::vector<std::string>& wanted() const { return m_wanted; }
    // What FSMakeFSRefUnicode was given as name lengths.
    const std::vector<unsigned long>& name_lengths() const { return m_nameLengths; }

    // For the services themselves.
    static ScopedMacServices& Current();
    bool FailsNow(MacService aService);
    const void* Create(const std::string& aValue);
    void Release(const void* aObject);
    std::string ValueOf(const void* aObject) const;

    std::string m_sApplication;
    std::u16string m_sName;
    std::set<std::string> m_files;
    std::map<std::string, std::set<std::string>> m_bundles;
    std::vector<std::string> m_wanted;
    std::vector<unsigned long> m_nameLengths;

  private:
    static void* Dlopen(const char* aPath, int aMode);
    static void* Dlsym(void* aLibrary, const char* aName);

    // The framework of the process-information call is loaded when it is needed.
    ScopedEntry<void* (*)(const char*, int)> m_dlopen;
    ScopedEntry<void* (*)(void*, const char*)> m_dlsym;
    std::map<const void*, std::string*> m_objects;
    MacService m_failing = MacService::NONE;
    int m_nUntilFailure = 0;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_MAC_SERVICES_H
