// Bytes that look like anything, the same in every run.
#ifndef KELTO_TEST_RANDOM_BYTES_H
#define KELTO_TEST_RANDOM_BYTES_H

#include <cstddef>
#include <random>
#include <vector>

namespace kelto_test {

template <class Bytes = std::vector<unsigned char>>
Bytes RandomBytes(size_t aCount, unsigned int aSeed) {
    std::mt19937 random(aSeed);
    Bytes bytes(aCount, 0);
    for (auto& byte : bytes) {
        byte = static_cast<typename Bytes::value_type>(random());
    }
    return bytes;
}

}  // namespace kelto_test

#endif  // KELTO_TEST_RANDOM_BYTES_H
