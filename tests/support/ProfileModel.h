// What a profile file says, worked out in the plainest way.
#ifndef TESTS_SUPPORT_PROFILE_MODEL_H
#define TESTS_SUPPORT_PROFILE_MODEL_H

#include <string>
#include <vector>

namespace kelto_test {

struct ModelRecord {
    bool header;
    std::string name;  // lower case
    std::string value;
};

// The whole profile is taken apart first, and asked afterwards.
std::vector<ModelRecord> ModelRecords(const std::string& aContent);

// aNone when the key is not found.
std::string ModelFind(const std::vector<ModelRecord>& aRecords, const std::string& aSection,
                      const std::string& aKey, const std::string& aNone = "(none)");

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_PROFILE_MODEL_H
