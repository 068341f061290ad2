// Mach-O files in memory: mapped, bound to each other and to what the loader supplies, initialised.
#ifndef MAC_RUN_IMAGE_H
#define MAC_RUN_IMAGE_H

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "MachO.h"

namespace kelto_mac {

struct Image;

// A library that an image names: one of the loader's own, or an image.
struct Dependency {
    std::string name;
    Image* image = nullptr;
    bool weak = false;      // may be missing
    bool reexport = false;  // its names count as the image's own
};

struct Export {
    const void* address;
    bool weak;
};

struct Segment {
    uint64_t address;  // in the file
    uint64_t size;
    uint64_t fileOffset;
    uint64_t fileSize;
    int protection;
};

// A symbol of the symbol table, for dladdr.
struct NamedAddress {
    uint64_t address;  // in memory
    const char* name;  // with its underscore
};

struct Image {
    std::string path;         // as it was asked for, from the root
    std::string realPath;     // without symbolic links
    std::string installName;  // as others name it
    uint32_t filetype = 0;
    const MachHeader* header = nullptr;  // where the image starts in memory
    uint64_t size = 0;
    uint64_t slide = 0;  // from an address in the file to that in memory
    uint64_t entry = 0;  // offset of main
    std::vector<uint8_t> file;
    std::vector<Segment> segments;
    std::vector<Section> sections;
    std::vector<Dependency> dependencies;
    std::vector<std::string> rpaths;
    DyldInfoCommand dyld = {};
    std::unordered_map<std::string, Export> exports;
    std::vector<NamedAddress> symbols;  // by address
    Image* loader = nullptr;            // which image asked for it
    bool initialised = false;

    void* At(uint64_t aAddress) const { return reinterpret_cast<void*>(aAddress + slide); }
    bool Contains(const void* aAddress) const {
        return static_cast<const uint8_t*>(aAddress) >= reinterpret_cast<const uint8_t*>(header) &&
               static_cast<const uint8_t*>(aAddress) <
                   reinterpret_cast<const uint8_t*>(header) + size;
    }
};

// What the program was started with; initialisers get it, too.
struct ProgramArguments {
    int argc;
    char** argv;
    char** environment;
    char** apple;  // further strings, of which the first is the program's path
};
extern ProgramArguments g_arguments;

// In the order in which they were loaded; the program is the first.
const std::vector<Image*>& Images();

// Sets where the C++ library and the unwinder lie, which stand for those of a Mac.
void SetRuntimeFolder(const std::string& aFolder);

// Loads the file and what it needs, once, without initialising anything. Null: aError says why.
// Unless a file can be opened, the failure ends the process, as it does where the loader cannot
// do what the file asks for.
Image* LoadImage(const std::string& aPath, Image* aLoader, std::string* aError);
// The same without loading anything. Null: it is not in memory.
Image* FindLoaded(const std::string& aPath, const Image* aLoader);
// Runs the initialisers of the image, those of what it needs first.
void Initialise(Image& aImage);
// Runs the terminators of all images; at exit, before static objects end.
void RunTerminators();

// Among the names of the image and what it re-exports.
const Export* FindExport(const Image& aImage, const char* aName);
// In all images, the first in order of loading; then in what the loader supplies.
const void* FindAnywhere(const char* aName);
Image* ImageOf(const void* aAddress);
bool IsMachO(const char* aPath);

}  // namespace kelto_mac

#endif  // MAC_RUN_IMAGE_H
