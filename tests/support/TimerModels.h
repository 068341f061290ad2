// Drives the timer queues and plain models of them side by side.
#ifndef TESTS_SUPPORT_TIMER_MODELS_H
#define TESTS_SUPPORT_TIMER_MODELS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelto_test {

// The bytes choose operations and their arguments, whatever they are; handlers operate on the
// queue as they fire. Returns where queue and model first disagreed, or an empty text. Lines of
// the library are to be expected.
std::string RunOrderedListModel(const uint8_t* aData, size_t aSize);
// aClamped: grows by the intervals that were shortened, each of which writes a line.
std::string RunCalendarModel(const uint8_t* aData, size_t aSize, int& aClamped);

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_TIMER_MODELS_H
