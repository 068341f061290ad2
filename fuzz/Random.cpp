// Runs a fuzz target with random bytes, without a fuzzer and as fast as it goes:
//   fuzz_strict_url_random COUNT [SEED [CHARACTERS]]
// Half of the inputs are any bytes, half of them are made of CHARACTERS. Each is in memory of
// exactly its size.
#include <algorithm>
#include <memory>
#include <random>

#include "Fuzz.h"

namespace {

constexpr size_t MAX_SIZE = 24;
constexpr char CHARACTERS[] = "0123456789abcdefhtpsxwKMGTiB:/?#[]@!$&'()*+,;=.-_~%% \"\n";

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    const long lCount = argc > 1 ? std::atol(argv[1]) : 0;
    std::mt19937_64 random(argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1);
    const std::string sCharacters = argc > 3 ? argv[3] : CHARACTERS;
    for (long i = 0; i < lCount; ++i) {
        const size_t nSize = random() % (MAX_SIZE + 1);
        const std::unique_ptr<uint8_t[]> pBytes(new uint8_t[nSize]);
        const bool bAny = random() % 2 == 0;
        std::generate_n(pBytes.get(), nSize, [&] {
            const uint64_t ullBits = random();
            return static_cast<uint8_t>(bAny ? ullBits : sCharacters[ullBits % sCharacters.size()]);
        });
        LLVMFuzzerTestOneInput(pBytes.get(), nSize);
    }
    std::printf("%ld inputs\n", lCount);
    return lCount > 0 ? 0 : 1;
}
