#include "Binding.h"

#include <string.h>

#include "Supply.h"

namespace kelto_mac {

namespace {

// What the loader adds to the system library as an image of its own.
constexpr char UNWINDER[] = "/usr/lib/system/libunwind.dylib";
constexpr char STUB_BINDER[] = "dyld_stub_binder";

// The bytes of one table.
class Reader {
  public:
    Reader(const Image& aImage, uint64_t aOffset, uint64_t aSize)
        : m_image(aImage), m_pNext(aImage.file.data() + aOffset), m_pEnd(m_pNext + aSize) {
        if (aOffset + aSize > aImage.file.size()) {
            Refuse("%s: a table reaches past its end", aImage.path.c_str());
        }
    }

    bool AtEnd() const { return m_pNext == m_pEnd; }
    uint8_t Byte() {
        if (AtEnd()) {
            Refuse("%s: a table ends within an entry", m_image.path.c_str());
        }
        return *m_pNext++;
    }
    uint64_t Unsigned() {
        uint64_t value = 0;
        int nShift = 0;
        uint8_t byte;
        do {
            byte = Byte();
            value |= static_cast<uint64_t>(byte & 0x7F) << nShift;
            nShift += 7;
        } while ((byte & 0x80) != 0);
        return value;
    }
    int64_t Signed() {
        int64_t value = 0;
        int nShift = 0;
        uint8_t byte;
        do {
            byte = Byte();
            value |= static_cast<int64_t>(byte & 0x7F) << nShift;
            nShift += 7;
        } while ((byte & 0x80) != 0);
        return (byte & 0x40) != 0 && nShift < 64 ? value | -(int64_t{1} << nShift) : value;
    }
    const char* Text() {
        const char* const pText = reinterpret_cast<const char*>(m_pNext);
        while (Byte() != 0) {
        }
        return pText;
    }

  private:
    const Image& m_image;
    const uint8_t* m_pNext;
    const uint8_t* const m_pEnd;
};

uint64_t* PointerAt(const Image& aImage, uint64_t aSegment, uint64_t aOffset) {
    if (aSegment >= aImage.segments.size() ||
        aOffset + sizeof(uint64_t) > aImage.segments[aSegment].size) {
        Refuse("%s: a pointer to change lies outside of the segments", aImage.path.c_str());
    }
    return static_cast<uint64_t*>(aImage.At(aImage.segments[aSegment].address + aOffset));
}

void ReadExportNode(Image& aImage, uint64_t aNode, const std::string& aPrefix) {
    const uint64_t start = aImage.dyld.export_off;
    const uint64_t size = aImage.dyld.export_size;
    if (aNode >= size) {
        Refuse("%s: its exports are damaged", aImage.path.c_str());
    }
    Reader reader(aImage, start + aNode, size - aNode);
    if (reader.Unsigned() != 0) {
        const uint64_t flags = reader.Unsigned();
        if ((flags & (EXPORT_REEXPORT | EXPORT_STUB_AND_RESOLVER)) != 0) {
            Refuse("%s: %s is exported in a way that is not known", aImage.path.c_str(),
                   aPrefix.c_str());
        }
        const uint64_t value = reader.Unsigned();
        const void* const pAddress = (flags & EXPORT_KIND) == EXPORT_ABSOLUTE
                                         ? reinterpret_cast<const void*>(value)
                                         : reinterpret_cast<const uint8_t*>(aImage.header) + value;
        aImage.exports[aPrefix] = {pAddress, (flags & EXPORT_WEAK_DEFINITION) != 0};
    }
    for (uint8_t nChildren = reader.Byte(); nChildren != 0; --nChildren) {
        const std::string sName = aPrefix + reader.Text();
        ReadExportNode(aImage, reader.Unsigned(), sName);
    }
}

// ---- Binding

// One pointer to set.
struct Binding {
    int ordinal = 0;
    const char* name = nullptr;
    bool weak = false;    // null where nobody has the name
    bool strong = false;  // nothing to set: the image's own definition is to win
    uint64_t segment = 0;
    uint64_t offset = 0;
    int64_t addend = 0;
};

void SetSymbol(Binding& aBinding, uint8_t aFlags, const char* aName) {
    aBinding.name = aName;
    aBinding.weak = (aFlags & BIND_FLAG_WEAK_IMPORT) != 0;
    aBinding.strong = (aFlags & BIND_FLAG_STRONG_DEFINITION) != 0;
}

// Calls aSet for every pointer of a table. The entries of a lazy table end with BIND_DONE each.
template <class Set>
void ForEachBinding(const Image& aImage, uint64_t aOffset, uint64_t aSize, bool aLazy, Set aSet) {
    Reader reader(aImage, aOffset, aSize);
    Binding now;
    const auto fnSet = [&](uint64_t aSkip) {
        aSet(now);
        now.offset += sizeof(uint64_t) + aSkip;
    };
    while (!reader.AtEnd()) {
        const uint8_t byte = reader.Byte();
        const uint8_t operand = byte & OPERAND;
        switch (byte & OPERATION) {
            case BIND_DONE:
                if (!aLazy) {
                    return;
                }
                break;
            case BIND_SET_ORDINAL:
                now.ordinal = operand;
                break;
            case BIND_SET_ORDINAL_COUNTED:
                now.ordinal = static_cast<int>(reader.Unsigned());
                break;
            case BIND_SET_ORDINAL_SPECIAL:
                now.ordinal = operand == 0 ? 0 : static_cast<int8_t>(operand | OPERATION);
                break;
            case BIND_SET_SYMBOL:
                SetSymbol(now, operand, reader.Text());
                break;
            case BIND_SET_TYPE:
                if (operand != TYPE_POINTER) {
                    Refuse("%s: binds something other than a pointer", aImage.path.c_str());
                }
                break;
            case BIND_SET_ADDEND:
                now.addend = reader.Signed();
                break;
            case BIND_SET_SEGMENT_AND_OFFSET:
                now.segment = operand;
                now.offset = reader.Unsigned();
                break;
            case BIND_ADD_ADDRESS:
                now.offset += reader.Unsigned();
                break;
            case BIND_DO:
                fnSet(0);
                break;
            case BIND_DO_ADD_ADDRESS:
                fnSet(reader.Unsigned());
                break;
            case BIND_DO_ADD_ADDRESS_SCALED:
                fnSet(operand * sizeof(uint64_t));
                break;
            case BIND_DO_TIMES_SKIPPING: {
                const uint64_t count = reader.Unsigned();
                const uint64_t skip = reader.Unsigned();
                for (uint64_t i = 0; i < count; ++i) {
                    fnSet(skip);
                }
                break;
            }
            default:
                Refuse("%s: bind operation %#x is not known", aImage.path.c_str(), byte);
        }
    }
}

const void* FindInSystem(const char* aName) {
    const void* const pAddress = FindSupplied(SYSTEM_LIBRARY, aName);
    if (pAddress != nullptr) {
        return pAddress;
    }
    for (const Image* const pImage : Images()) {
        if (pImage->installName == UNWINDER) {
            const Export* const pExport = FindExport(*pImage, aName);
            return pExport == nullptr ? nullptr : pExport->address;
        }
    }
    return nullptr;
}

const void* FindInDependency(const Image& aImage, const Dependency& aDependency,
                             const Binding& aBinding) {
    if (aDependency.image != nullptr) {
        const Export* const pExport = FindExport(*aDependency.image, aBinding.name);
        if (pExport == nullptr && !aBinding.weak) {
            Refuse("%s: symbol not found: %s, expected in %s", aImage.path.c_str(), aBinding.name,
                   aDependency.name.c_str());
        }
        return pExport == nullptr ? nullptr : pExport->address;
    }
    const void* const pAddress = aDependency.name == SYSTEM_LIBRARY
                                     ? FindInSystem(aBinding.name)
                                     : FindSupplied(aDependency.name.c_str(), aBinding.name);
    return pAddress != nullptr || aBinding.weak
               ? pAddress
               : UnsuppliedName(aBinding.name, aDependency.name.c_str());
}

const void* FindDefinition(const Image& aImage, const Binding& aBinding) {
    if (aBinding.ordinal > static_cast<int>(aImage.dependencies.size())) {
        Refuse("%s: %s is of a library that it does not name", aImage.path.c_str(), aBinding.name);
    }
    if (aBinding.ordinal > 0) {
        return FindInDependency(aImage, aImage.dependencies[aBinding.ordinal - 1], aBinding);
    }
    const void* pAddress = nullptr;
    if (aBinding.ordinal == ORDINAL_SELF || aBinding.ordinal == ORDINAL_MAIN_EXECUTABLE) {
        const Image& image = aBinding.ordinal == ORDINAL_SELF ? aImage : *Images().front();
        const Export* const pExport = FindExport(image, aBinding.name);
        pAddress = pExport == nullptr ? nullptr : pExport->address;
    } else {
        pAddress = FindAnywhere(aBinding.name);
    }
    return pAddress != nullptr || aBinding.weak ? pAddress
                                                : UnsuppliedName(aBinding.name, "any library");
}

void Set(const Image& aImage, const Binding& aBinding, const void* aAddress) {
    *PointerAt(aImage, aBinding.segment, aBinding.offset) =
        aAddress == nullptr ? 0 : reinterpret_cast<uint64_t>(aAddress) + aBinding.addend;
}

const Export* FindShared(const char* aName) {
    const Export* pFirst = nullptr;
    for (const Image* const pImage : Images()) {
        const auto name = pImage->exports.find(aName);
        if (name == pImage->exports.end()) {
            continue;
        }
        if (!name->second.weak) {
            return &name->second;
        }
        pFirst = pFirst == nullptr ? &name->second : pFirst;
    }
    return pFirst;
}

}  // namespace

void ReadExports(Image& aImage) {
    if (aImage.dyld.export_size != 0) {
        ReadExportNode(aImage, 0, "");
    }
}

void Rebase(const Image& aImage) {
    Reader reader(aImage, aImage.dyld.rebase_off, aImage.dyld.rebase_size);
    uint64_t segment = 0;
    uint64_t offset = 0;
    const auto fnRebase = [&](uint64_t aCount, uint64_t aSkip) {
        for (uint64_t i = 0; i < aCount; ++i) {
            *PointerAt(aImage, segment, offset) += aImage.slide;
            offset += sizeof(uint64_t) + aSkip;
        }
    };
    while (!reader.AtEnd()) {
        const uint8_t byte = reader.Byte();
        const uint8_t operand = byte & OPERAND;
        switch (byte & OPERATION) {
            case REBASE_DONE:
                return;
            case REBASE_SET_TYPE:
                if (operand != TYPE_POINTER) {
                    Refuse("%s: rebases something other than a pointer", aImage.path.c_str());
                }
                break;
            case REBASE_SET_SEGMENT_AND_OFFSET:
                segment = operand;
                offset = reader.Unsigned();
                break;
            case REBASE_ADD_ADDRESS:
                offset += reader.Unsigned();
                break;
            case REBASE_ADD_ADDRESS_SCALED:
                offset += operand * sizeof(uint64_t);
                break;
            case REBASE_DO_TIMES:
                fnRebase(operand, 0);
                break;
            case REBASE_DO_TIMES_COUNTED:
                fnRebase(reader.Unsigned(), 0);
                break;
            case REBASE_DO_ADD_ADDRESS:
                fnRebase(1, reader.Unsigned());
                break;
            case REBASE_DO_TIMES_SKIPPING: {
                const uint64_t count = reader.Unsigned();
                fnRebase(count, reader.Unsigned());
                break;
            }
            default:
                Refuse("%s: rebase operation %#x is not known", aImage.path.c_str(), byte);
        }
    }
}

void Bind(const Image& aImage) {
    const auto fnBind = [&](const Binding& aBinding) {
        // Nothing is bound lazily: the binder is never called.
        if (strcmp(aBinding.name, STUB_BINDER) == 0) {
            Set(aImage, aBinding, UnsuppliedName(STUB_BINDER, SYSTEM_LIBRARY));
        } else {
            Set(aImage, aBinding, FindDefinition(aImage, aBinding));
        }
    };
    ForEachBinding(aImage, aImage.dyld.bind_off, aImage.dyld.bind_size, false, fnBind);
    ForEachBinding(aImage, aImage.dyld.lazy_bind_off, aImage.dyld.lazy_bind_size, true, fnBind);
}

void BindWeakly(const Image& aImage) {
    ForEachBinding(aImage, aImage.dyld.weak_bind_off, aImage.dyld.weak_bind_size, false,
                   [&](const Binding& aBinding) {
                       const Export* const pExport = FindShared(aBinding.name);
                       if (pExport != nullptr && !aBinding.strong) {
                           Set(aImage, aBinding, pExport->address);
                       }
                   });
}

}  // namespace kelto_mac
