// Flight recorders' files made from inputs, for the targets that read such files. A file takes
// kilobytes, an input tells it in few bytes.
#ifndef FUZZ_FLIGHT_FILE_H
#define FUZZ_FLIGHT_FILE_H

#include <string>
#include <string_view>

#include "Fuzz.h"

namespace kelto_fuzz {

// Takes all of aInput: a file as it is, or what a small one has in it, which may then be changed
// anywhere and cut.
std::string FlightFile(Input& aInput);

// No bytes but printable UTF-8 and line ends.
bool IsPrintable(std::string_view aText);
// One value of JSON, and nothing after it but white space.
bool IsJson(std::string_view aText);

}  // namespace kelto_fuzz

#endif  // FUZZ_FLIGHT_FILE_H
