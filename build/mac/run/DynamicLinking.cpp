// dlopen and its kin over images, and what the unwinder asks of the dynamic loader.
#include <dlfcn.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "Image.h"
#include "Supply.h"

namespace kelto_mac {

namespace {

constexpr int TARGET_RTLD_NOLOAD = 0x10;
// Handles that are no images.
void* const TARGET_RTLD_NEXT = reinterpret_cast<void*>(-1);
void* const TARGET_RTLD_DEFAULT = reinterpret_cast<void*>(-2);
void* const TARGET_RTLD_SELF = reinterpret_cast<void*>(-3);
void* const TARGET_RTLD_MAIN_ONLY = reinterpret_cast<void*>(-5);

__thread char s_chError[512];
__thread bool s_bError = false;

void* Fail(const std::string& aError) {
    snprintf(s_chError, sizeof(s_chError), "%s", aError.c_str());
    s_bError = true;
    return nullptr;
}

char* DlError() {
    const bool bError = s_bError;
    s_bError = false;
    return bError ? s_chError : nullptr;
}

// The install name by which the loader knows a library of its own that aPath names.
std::string SuppliedLibrary(const std::string& aPath) {
    const std::string sVersioned =
        aPath.substr(0, aPath.rfind('/') + 1) + "Versions/A" + aPath.substr(aPath.rfind('/'));
    return IsSuppliedLibrary(aPath.c_str())        ? aPath
           : IsSuppliedLibrary(sVersioned.c_str()) ? sVersioned
                                                   : "";
}

bool IsLoaded(const Image* aImage) {
    return std::find(Images().begin(), Images().end(), aImage) != Images().end();
}

void* DlOpen(const char* aPath, int aMode) {
    if (aPath == nullptr) {
        return TARGET_RTLD_DEFAULT;
    }
    const std::string sLibrary = SuppliedLibrary(aPath);
    if (!sLibrary.empty()) {
        static auto* const s_pNames = new std::vector<std::string*>;
        for (std::string* const pName : *s_pNames) {
            if (*pName == sLibrary) {
                return pName;
            }
        }
        s_pNames->push_back(new std::string(sLibrary));
        return s_pNames->back();
    }
    std::string sError;
    Image* const pCaller = ImageOf(__builtin_return_address(0));
    Image* const pImage = (aMode & TARGET_RTLD_NOLOAD) != 0 ? FindLoaded(aPath, pCaller)
                                                            : LoadImage(aPath, pCaller, &sError);
    if (pImage == nullptr) {
        return Fail("dlopen(" + std::string(aPath) + "): " + sError);
    }
    Initialise(*pImage);
    return pImage;
}

// Images stay: what they registered for the end of threads lies in them.
int DlClose(void*) {
    return 0;
}

const void* FindInImage(const Image& aImage, const std::string& aName) {
    const Export* const pExport = FindExport(aImage, aName.c_str());
    return pExport == nullptr ? nullptr : pExport->address;
}

const void* FindAfter(const Image* aCaller, const std::string& aName) {
    auto image = std::find(Images().begin(), Images().end(), aCaller);
    for (; image != Images().end(); ++image) {
        const void* const pAddress = *image == aCaller ? nullptr : FindInImage(**image, aName);
        if (pAddress != nullptr) {
            return pAddress;
        }
    }
    return FindSuppliedAnywhere(aName.c_str());
}

void* DlSym(void* aLibrary, const char* aName) {
    const std::string sName = std::string("_") + aName;
    const Image* const pCaller = ImageOf(__builtin_return_address(0));
    const void* pAddress = nullptr;
    if (aLibrary == TARGET_RTLD_DEFAULT) {
        pAddress = FindAnywhere(sName.c_str());
    } else if (aLibrary == TARGET_RTLD_NEXT) {
        pAddress = FindAfter(pCaller, sName);
    } else if (aLibrary == TARGET_RTLD_MAIN_ONLY) {
        pAddress = FindInImage(*Images().front(), sName);
    } else if (aLibrary == TARGET_RTLD_SELF) {
        pAddress = FindInImage(*pCaller, sName);
    } else if (IsLoaded(static_cast<Image*>(aLibrary))) {
        pAddress = FindInImage(*static_cast<Image*>(aLibrary), sName);
    } else {
        pAddress = FindSupplied(static_cast<std::string*>(aLibrary)->c_str(), sName.c_str());
    }
    return pAddress != nullptr ? const_cast<void*>(pAddress)
                               : Fail("dlsym(" + std::string(aName) + "): symbol not found");
}

// The last symbol at or before the address, whether it is exported or not.
int DlAddr(const void* aAddress, Dl_info* aInfo) {
    Image* const pImage = ImageOf(aAddress);
    if (pImage == nullptr) {
        return dladdr(aAddress, aInfo);
    }
    *aInfo = {};
    aInfo->dli_fname = pImage->path.c_str();
    aInfo->dli_fbase = const_cast<MachHeader*>(pImage->header);
    const uint64_t address = reinterpret_cast<uint64_t>(aAddress);
    const auto next =
        std::upper_bound(pImage->symbols.begin(), pImage->symbols.end(), address,
                         [](uint64_t a, const NamedAddress& b) { return a < b.address; });
    if (next != pImage->symbols.begin()) {
        const NamedAddress& symbol = *(next - 1);
        aInfo->dli_sname = symbol.name + (symbol.name[0] == '_' ? 1 : 0);
        aInfo->dli_saddr = reinterpret_cast<void*>(symbol.address);
    }
    return 1;
}

// ---- What dyld tells

struct UnwindSections {
    const MachHeader* header;
    const void* dwarf;
    uintptr_t dwarfLength;
    const void* compact;
    uintptr_t compactLength;
};

bool FindUnwindSections(const void* aAddress, UnwindSections* aSections) {
    const Image* const pImage = ImageOf(aAddress);
    if (pImage == nullptr) {
        return false;
    }
    *aSections = {};
    aSections->header = pImage->header;
    for (const Section& section : pImage->sections) {
        if (strncmp(section.sectname, "__unwind_info", sizeof(section.sectname)) == 0) {
            aSections->compact = pImage->At(section.addr);
            aSections->compactLength = section.size;
        } else if (strncmp(section.sectname, "__eh_frame", sizeof(section.sectname)) == 0) {
            aSections->dwarf = pImage->At(section.addr);
            aSections->dwarfLength = section.size;
        }
    }
    return true;
}

// Images are never removed.
void RegisterForRemovedImages(void (*)(const MachHeader*, intptr_t)) {}

}  // namespace

void SupplyDynamicLinking() {
    Supply({
        {"_dlopen", Address(&DlOpen)},
        {"_dlclose", Address(&DlClose)},
        {"_dlsym", Address(&DlSym)},
        {"_dladdr", Address(&DlAddr)},
        {"_dlerror", Address(&DlError)},
        {"__dyld_find_unwind_sections", Address(&FindUnwindSections)},
        {"__dyld_register_func_for_remove_image", Address(&RegisterForRemovedImages)},
    });
}

}  // namespace kelto_mac
