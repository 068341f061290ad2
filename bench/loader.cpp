// Loads the shared library that it is given, and prints how long that took, in nanoseconds, and how
// many bytes of files were mapped for it. It is linked with nothing but the standard library.

#include <dlfcn.h>
#include <link.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

// Of all that is loaded.
double MappedBytes() {
    double bytes = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* aInfo, size_t, void* aBytes) {
            for (int i = 0; i < aInfo->dlpi_phnum; ++i) {
                if (aInfo->dlpi_phdr[i].p_type == PT_LOAD) {
                    *static_cast<double*>(aBytes) +=
                        static_cast<double>(aInfo->dlpi_phdr[i].p_filesz);
                }
            }
            return 0;
        },
        &bytes);
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    const double before = MappedBytes();
    const auto start = std::chrono::steady_clock::now();
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) {
        std::fprintf(stderr, "loader: %s\n", argc == 2 ? dlerror() : "one library, please");
        return 1;
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    std::printf("%.0f %.0f\n", took.count(), MappedBytes() - before);
    std::fflush(stdout);
    std::_Exit(0);  // unloading is not part of it
}
