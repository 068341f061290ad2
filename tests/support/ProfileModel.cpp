#include "support/ProfileModel.h"

#include <algorithm>
#include <cstring>

namespace kelto_test {

namespace {

std::string ModelTrim(const std::string& aText) {
    const size_t nFirst = aText.find_first_not_of(" \t\r\n");
    return nFirst == std::string::npos
               ? ""
               : aText.substr(nFirst, aText.find_last_not_of(" \t\r\n") - nFirst + 1);
}

std::string ModelLower(std::string aText) {
    std::transform(aText.begin(), aText.end(), aText.begin(),
                   [](char ch) { return 'A' <= ch && ch <= 'Z' ? char(ch | 0x20) : ch; });
    return aText;
}

std::vector<std::string> ModelLines(const std::string& aContent) {
    std::vector<std::string> lines(1);
    for (const char ch : aContent) {
        if (lines.back().size() == 2047 || (!lines.back().empty() && lines.back().back() == '\n')) {
            lines.emplace_back();
        }
        lines.back() += ch;
    }
    for (std::string& sLine : lines) {
        sLine.resize(std::strlen(sLine.c_str()));  // what a reader of text sees of it
    }
    return lines;
}

}  // namespace

std::vector<ModelRecord> ModelRecords(const std::string& aContent) {
    std::vector<ModelRecord> records;
    for (const std::string& sLine : ModelLines(aContent)) {
        const size_t nOpen = sLine.find('[');
        const size_t nClose = sLine.find(']');
        const size_t nEqual = sLine.find('=');
        if (ModelTrim(sLine).substr(0, 1) == "#") {
            continue;
        }
        if (nOpen != std::string::npos && nClose != std::string::npos) {
            std::string sName = sLine.substr(nOpen + 1);
            if (nClose > nOpen) {
                sName = sName.substr(0, sName.find(']'));
            }
            records.push_back({true, ModelLower(ModelTrim(sName)), ""});
        } else if (nEqual != std::string::npos) {
            std::string sValue = ModelTrim(sLine.substr(nEqual + 1));
            const char chFirst = sValue.empty() ? ' ' : sValue[0];
            if ((chFirst == '"' || chFirst == '\'') && sValue.size() > 1 &&
                sValue[sValue.size() - 1] == chFirst) {
                sValue = ModelTrim(sValue.substr(1, sValue.size() - 2));
            }
            records.push_back({false, ModelLower(ModelTrim(sLine.substr(0, nEqual))), sValue});
        }
    }
    return records;
}

std::string ModelFind(const std::vector<ModelRecord>& aRecords, const std::string& aSection,
                      const std::string& aKey, const std::string& aNone) {
    auto it = std::find_if(aRecords.begin(), aRecords.end(), [&](const ModelRecord& record) {
        return record.header && record.name == ModelLower(aSection);
    });
    while (it != aRecords.end() && ++it != aRecords.end() && !it->header) {
        if (it->name == ModelLower(aKey)) {
            return it->value;
        }
    }
    return aNone;
}

}  // namespace kelto_test
