#include "Image.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>

#include "Binding.h"
#include "Supply.h"
#include "ThreadLocals.h"

namespace kelto_mac {

ProgramArguments g_arguments;

namespace {

constexpr uint64_t PAGE_BYTES = 4096;
// Part of the system library, which every program has.
constexpr char UNWINDER_FILE[] = "libunwind.dylib";

// Never destroyed: what an image registered for the end of the process looks it up.
std::vector<Image*>& Loaded() {
    static auto* const s_pLoaded = new std::vector<Image*>;
    return *s_pLoaded;
}

std::string& RuntimeFolder() {
    static auto* const s_pFolder = new std::string;
    return *s_pFolder;
}

std::string FolderOf(const std::string& aPath) {
    const size_t nSlash = aPath.rfind('/');
    return nSlash == std::string::npos ? "." : aPath.substr(0, nSlash);
}

std::string FromRoot(const std::string& aPath) {
    char chFolder[PATH_MAX];
    return aPath[0] == '/' || getcwd(chFolder, sizeof(chFolder)) == nullptr
               ? aPath
               : std::string(chFolder) + "/" + aPath;
}

std::string FileNameOf(const std::string& aPath) {
    return aPath.substr(aPath.rfind('/') + 1);
}

// The text after the prefix, if aText has it.
bool StripPrefix(const std::string& aText, const char* aPrefix, std::string& aRest) {
    const size_t nLength = strlen(aPrefix);
    if (aText.compare(0, nLength, aPrefix) != 0) {
        return false;
    }
    aRest = aText.substr(nLength);
    return true;
}

std::string Expand(const std::string& aName, const Image* aLoader) {
    std::string sRest;
    if (aLoader != nullptr && StripPrefix(aName, "@loader_path/", sRest)) {
        return FolderOf(aLoader->realPath) + "/" + sRest;
    }
    if (StripPrefix(aName, "@executable_path/", sRest)) {
        return FolderOf(Images().front()->realPath) + "/" + sRest;
    }
    return aName;
}

// Where aName may lie, best first: the runtime folder stands for the system's own.
std::vector<std::string> Candidates(const std::string& aName, const Image* aLoader) {
    std::string sRest;
    if (StripPrefix(aName, "/usr/lib/", sRest)) {
        return {RuntimeFolder() + "/" + FileNameOf(sRest), aName};
    }
    if (!StripPrefix(aName, "@rpath/", sRest)) {
        return {Expand(aName, aLoader)};
    }
    std::vector<std::string> paths;
    for (const Image* pImage = aLoader; pImage != nullptr; pImage = pImage->loader) {
        for (const std::string& sFolder : pImage->rpaths) {
            paths.push_back(Expand(sFolder + "/" + sRest, pImage));
        }
    }
    return paths;
}

template <class Record>
const Record& RecordAt(const std::vector<uint8_t>& aFile, uint64_t aOffset) {
    if (aOffset + sizeof(Record) > aFile.size()) {
        Refuse("a file ends within a record");
    }
    return *reinterpret_cast<const Record*>(aFile.data() + aOffset);
}

const char* TextAt(const std::vector<uint8_t>& aFile, uint64_t aOffset) {
    return &RecordAt<char>(aFile, aOffset);
}

// ---- The load commands

void ReadSegment(Image& aImage, uint64_t aOffset) {
    const auto& command = RecordAt<SegmentCommand>(aImage.file, aOffset);
    for (uint32_t i = 0; i < command.nsects; ++i) {
        aImage.sections.push_back(
            RecordAt<Section>(aImage.file, aOffset + sizeof(SegmentCommand) + i * sizeof(Section)));
    }
    aImage.segments.push_back(
        {command.vmaddr, command.vmsize, command.fileoff, command.filesize, command.initprot});
}

void ReadDependency(Image& aImage, uint64_t aOffset) {
    const auto& command = RecordAt<DylibCommand>(aImage.file, aOffset);
    Dependency dependency;
    dependency.name = TextAt(aImage.file, aOffset + command.name);
    dependency.weak = command.command.cmd == LC_LOAD_WEAK_DYLIB;
    dependency.reexport = command.command.cmd == LC_REEXPORT_DYLIB;
    aImage.dependencies.push_back(dependency);
}

void ReadCommand(Image& aImage, uint64_t aOffset) {
    const auto& command = RecordAt<LoadCommand>(aImage.file, aOffset);
    switch (command.cmd) {
        case LC_SEGMENT_64:
            ReadSegment(aImage, aOffset);
            break;
        case LC_ID_DYLIB:
            aImage.installName =
                TextAt(aImage.file, aOffset + RecordAt<DylibCommand>(aImage.file, aOffset).name);
            break;
        case LC_LOAD_DYLIB:
        case LC_LOAD_WEAK_DYLIB:
        case LC_REEXPORT_DYLIB:
            ReadDependency(aImage, aOffset);
            break;
        case LC_RPATH:
            aImage.rpaths.push_back(
                TextAt(aImage.file, aOffset + RecordAt<RpathCommand>(aImage.file, aOffset).path));
            break;
        case LC_DYLD_INFO_ONLY:
            aImage.dyld = RecordAt<DyldInfoCommand>(aImage.file, aOffset);
            break;
        case LC_MAIN:
            aImage.entry = RecordAt<EntryPointCommand>(aImage.file, aOffset).entryoff;
            break;
        case LC_DYLD_CHAINED_FIXUPS:
            Refuse("%s: chained fixups are not read; link with classic dyld information",
                   aImage.path.c_str());
        default:
            if ((command.cmd & LC_REQ_DYLD) != 0) {
                Refuse("%s: load command %#x is not known", aImage.path.c_str(), command.cmd);
            }
    }
}

void ReadCommands(Image& aImage) {
    const auto& header = RecordAt<MachHeader>(aImage.file, 0);
    if (header.magic != MH_MAGIC_64 || header.cputype != CPU_TYPE_X86_64) {
        Refuse("%s is not a Mach-O file for x86-64", aImage.path.c_str());
    }
    if (header.filetype == MH_EXECUTE && (header.flags & MH_PIE) == 0) {
        Refuse("%s wants a fixed address", aImage.path.c_str());
    }
    aImage.filetype = header.filetype;
    uint64_t offset = sizeof(MachHeader);
    for (uint32_t i = 0; i < header.ncmds; ++i) {
        ReadCommand(aImage, offset);
        offset += RecordAt<LoadCommand>(aImage.file, offset).cmdsize;
    }
}

// ---- Mapping

// The unmapped first pages of a program take no room here.
bool IsPageZero(const Segment& aSegment) {
    return aSegment.fileSize == 0 && aSegment.protection == 0;
}

void Map(Image& aImage) {
    uint64_t low = UINT64_MAX;
    uint64_t high = 0;
    for (const Segment& segment : aImage.segments) {
        if (!IsPageZero(segment)) {
            low = std::min(low, segment.address);
            high = std::max(high, segment.address + segment.size);
        }
    }
    if (low >= high) {
        Refuse("%s has no segments", aImage.path.c_str());
    }
    void* const pMemory =
        mmap(nullptr, high - low, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
        Refuse("no memory for %s", aImage.path.c_str());
    }
    aImage.header = static_cast<const MachHeader*>(pMemory);
    aImage.size = high - low;
    aImage.slide = reinterpret_cast<uint64_t>(pMemory) - low;
    for (const Segment& segment : aImage.segments) {
        if (segment.fileOffset + segment.fileSize > aImage.file.size() ||
            segment.fileSize > segment.size) {
            Refuse("%s: a segment reaches past its end", aImage.path.c_str());
        }
        if (segment.fileSize != 0) {
            memcpy(aImage.At(segment.address), aImage.file.data() + segment.fileOffset,
                   segment.fileSize);
        }
    }
}

// Gives the segments the protection that the file asks for, after the last change by the loader.
void Protect(const Image& aImage) {
    for (const Segment& segment : aImage.segments) {
        if (!IsPageZero(segment)) {
            const uint64_t length = (segment.size + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
            mprotect(aImage.At(segment.address), length, segment.protection);
        }
    }
}

// ---- Names

void ReadSymbols(Image& aImage) {
    const auto& header = RecordAt<MachHeader>(aImage.file, 0);
    uint64_t offset = sizeof(MachHeader);
    for (uint32_t i = 0; i < header.ncmds; ++i) {
        const auto& command = RecordAt<LoadCommand>(aImage.file, offset);
        if (command.cmd == LC_SYMTAB) {
            const auto& table = RecordAt<SymtabCommand>(aImage.file, offset);
            for (uint32_t n = 0; n < table.nsyms; ++n) {
                const auto& symbol =
                    RecordAt<Symbol>(aImage.file, table.symoff + n * sizeof(Symbol));
                if ((symbol.type & N_STAB) == 0 && (symbol.type & N_TYPE) == N_SECT) {
                    aImage.symbols.push_back({symbol.value + aImage.slide,
                                              TextAt(aImage.file, table.stroff + symbol.strx)});
                }
            }
        }
        offset += command.cmdsize;
    }
    std::stable_sort(
        aImage.symbols.begin(), aImage.symbols.end(),
        [](const NamedAddress& a, const NamedAddress& b) { return a.address < b.address; });
}

// ---- Initialisers

using Initialiser = void (*)(int, char**, char**, char**, void*);
using Terminator = void (*)();

void CallInitialiser(Initialiser aInitialiser) {
    aInitialiser(g_arguments.argc, g_arguments.argv, g_arguments.environment, g_arguments.apple,
                 nullptr);
}

// How many pointers a section holds, and the first.
template <class Function>
std::vector<Function> FunctionsOf(const Image& aImage, const Section& aSection) {
    const auto* const pFirst = static_cast<const Function*>(aImage.At(aSection.addr));
    return std::vector<Function>(pFirst, pFirst + aSection.size / sizeof(Function));
}

Image* FindByNameOrPath(const std::string& aName, const std::string& aRealPath) {
    for (Image* const pImage : Loaded()) {
        if (pImage->realPath == aRealPath || (!aName.empty() && pImage->installName == aName)) {
            return pImage;
        }
    }
    return nullptr;
}

bool ReadFile(Image& aImage) {
    std::ifstream stream(aImage.path, std::ios::binary);
    aImage.file.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    return stream.good() || stream.eof() ? !aImage.file.empty() : false;
}

void LoadDependencies(Image& aImage) {
    for (Dependency& dependency : aImage.dependencies) {
        std::string sError;
        if (!IsSuppliedLibrary(dependency.name.c_str())) {
            dependency.image = LoadImage(dependency.name, &aImage, &sError);
            if (dependency.image == nullptr && !dependency.weak) {
                Refuse("%s, which %s needs", sError.c_str(), aImage.path.c_str());
            }
        }
    }
}

// Maps the file at aPath and what it needs; binds nothing.
Image* MapImage(const std::string& aPath, Image* aLoader, const std::string& aName) {
    char chPath[PATH_MAX];
    if (realpath(aPath.c_str(), chPath) == nullptr) {
        return nullptr;
    }
    Image* const pLoaded = FindByNameOrPath(aName, chPath);
    if (pLoaded != nullptr) {
        return pLoaded;
    }
    auto* const pImage = new Image;
    pImage->path = FromRoot(aPath);
    pImage->realPath = chPath;
    pImage->loader = aLoader;
    if (!ReadFile(*pImage)) {
        delete pImage;
        return nullptr;
    }
    ReadCommands(*pImage);
    Map(*pImage);
    ReadSymbols(*pImage);
    ReadExports(*pImage);
    Loaded().push_back(pImage);
    LoadDependencies(*pImage);
    return pImage;
}

}  // namespace

const std::vector<Image*>& Images() {
    return Loaded();
}

void SetRuntimeFolder(const std::string& aFolder) {
    RuntimeFolder() = aFolder;
}

Image* LoadImage(const std::string& aPath, Image* aLoader, std::string* aError) {
    // Images are bound when all that they need is in memory.
    static bool s_bLoading = false;
    const bool bOutermost = !s_bLoading;
    const size_t nBefore = Loaded().size();
    s_bLoading = true;
    Image* pImage = nullptr;
    for (const std::string& sCandidate : Candidates(aPath, aLoader)) {
        pImage = MapImage(sCandidate, aLoader, aPath);
        if (pImage != nullptr) {
            break;
        }
    }
    if (pImage == nullptr) {
        *aError = "image not found: " + aPath;
    } else if (nBefore == 0 && bOutermost &&
               MapImage(RuntimeFolder() + "/" + UNWINDER_FILE, nullptr, "") == nullptr) {
        Refuse("the unwinder is not in %s", RuntimeFolder().c_str());
    }
    if (bOutermost) {
        for (size_t i = nBefore; i < Loaded().size(); ++i) {
            Rebase(*Loaded()[i]);
            Bind(*Loaded()[i]);
        }
        for (size_t i = nBefore; i < Loaded().size(); ++i) {
            BindWeakly(*Loaded()[i]);
            PrepareThreadLocals(*Loaded()[i]);
            Protect(*Loaded()[i]);
        }
        s_bLoading = false;
    }
    return pImage;
}

Image* FindLoaded(const std::string& aPath, const Image* aLoader) {
    for (const std::string& sCandidate : Candidates(aPath, aLoader)) {
        char chPath[PATH_MAX];
        Image* const pImage = realpath(sCandidate.c_str(), chPath) == nullptr
                                  ? nullptr
                                  : FindByNameOrPath(aPath, chPath);
        if (pImage != nullptr) {
            return pImage;
        }
    }
    return nullptr;
}

void Initialise(Image& aImage) {
    if (aImage.initialised) {
        return;
    }
    aImage.initialised = true;
    for (const Dependency& dependency : aImage.dependencies) {
        if (dependency.image != nullptr) {
            Initialise(*dependency.image);
        }
    }
    for (const Section& section : aImage.sections) {
        const uint32_t nType = section.flags & SECTION_TYPE;
        if (nType == S_MOD_INIT_FUNC_POINTERS) {
            for (const Initialiser initialiser : FunctionsOf<Initialiser>(aImage, section)) {
                CallInitialiser(initialiser);
            }
        } else if (nType == S_INIT_FUNC_OFFSETS) {
            for (const uint32_t nOffset : FunctionsOf<uint32_t>(aImage, section)) {
                CallInitialiser(reinterpret_cast<Initialiser>(
                    reinterpret_cast<uint64_t>(aImage.header) + nOffset));
            }
        }
    }
}

void RunTerminators() {
    for (auto image = Loaded().rbegin(); image != Loaded().rend(); ++image) {
        for (const Section& section : (*image)->sections) {
            if ((*image)->initialised &&
                (section.flags & SECTION_TYPE) == S_MOD_TERM_FUNC_POINTERS) {
                const auto functions = FunctionsOf<Terminator>(**image, section);
                std::for_each(functions.rbegin(), functions.rend(), [](Terminator f) { f(); });
            }
        }
    }
}

const Export* FindExport(const Image& aImage, const char* aName) {
    const auto name = aImage.exports.find(aName);
    if (name != aImage.exports.end()) {
        return &name->second;
    }
    for (const Dependency& dependency : aImage.dependencies) {
        if (dependency.reexport && dependency.image != nullptr) {
            const Export* const pExport = FindExport(*dependency.image, aName);
            if (pExport != nullptr) {
                return pExport;
            }
        }
    }
    return nullptr;
}

const void* FindAnywhere(const char* aName) {
    for (const Image* const pImage : Loaded()) {
        const Export* const pExport = FindExport(*pImage, aName);
        if (pExport != nullptr) {
            return pExport->address;
        }
    }
    return FindSuppliedAnywhere(aName);
}

Image* ImageOf(const void* aAddress) {
    for (Image* const pImage : Loaded()) {
        if (pImage->Contains(aAddress)) {
            return pImage;
        }
    }
    return nullptr;
}

bool IsMachO(const char* aPath) {
    std::ifstream stream(aPath, std::ios::binary);
    uint32_t magic = 0;
    stream.read(reinterpret_cast<char*>(&magic), sizeof(magic));
    return stream.good() && magic == MH_MAGIC_64;
}

}  // namespace kelto_mac
