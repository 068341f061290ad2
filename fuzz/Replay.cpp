// Runs a fuzz target over the files of its corpus, without a fuzzer:
//   fuzz_xml_replay DIRECTORY...
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "Fuzz.h"

namespace {

// In memory of exactly its size, so that reading past its end is found.
void RunFile(const std::filesystem::path& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    const std::string sContent{std::istreambuf_iterator<char>(file),
                               std::istreambuf_iterator<char>()};
    const std::unique_ptr<uint8_t[]> pContent(new uint8_t[sContent.size()]);
    std::copy(sContent.begin(), sContent.end(), pContent.get());
    std::fprintf(stderr, "%s\n", aPath.c_str());
    LLVMFuzzerTestOneInput(pContent.get(), sContent.size());
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    size_t nFiles = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> paths;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            paths.push_back(entry.path());
        }
        std::sort(paths.begin(), paths.end());
        for (const auto& path : paths) {
            RunFile(path);
            ++nFiles;
        }
    }
    std::printf("%zu inputs\n", nFiles);
    return nFiles > 0 ? 0 : 1;
}
