// Drives message block chains and a plain model of them side by side.
#ifndef TESTS_SUPPORT_CHAIN_MODEL_H
#define TESTS_SUPPORT_CHAIN_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelto_test {

// The bytes choose operations and their arguments, whatever they are. Returns where chain and
// model first disagreed, or an empty text. Assertion lines of the library are to be expected.
std::string RunChainModel(const uint8_t* aData, size_t aSize);

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CHAIN_MODEL_H
