// One key looked up in a profile file that is opened afresh for it.

#include "CmConfig.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "CmConfigReader.h"
#include "Row.h"
#if KELTO_WITH_GLIB
#include <glib.h>
#endif
#if KELTO_WITH_INIH
#include <ini.h>
#endif
#if KELTO_WITH_POCO
#include <Poco/Util/IniFileConfiguration.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char SECTION[] = "media";
constexpr char KEY[] = "jitter_key";
constexpr char VALUE[] = "200 ms";

// A profile of aLines lines with the wanted key in the last one.
class ProfileFile {
  public:
    explicit ProfileFile(int aLines) {
        std::string text;
        AppendLines(text, "other", aLines / 2);
        AppendLines(text, SECTION, aLines - aLines / 2 - 1);
        text.append(KEY).append(" = ").append(VALUE).append("\n");
        const int nFile = mkstemp(m_achPath);
        Check(nFile >= 0 &&
                  write(nFile, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
              "profile file");
        // Long ago, so that a snapshot need not wait for the file to settle.
        const timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
        Check(futimens(nFile, longAgo) == 0, "time of the profile file");
        close(nFile);
    }
    ~ProfileFile() { unlink(m_achPath); }
    ProfileFile(const ProfileFile&) = delete;
    ProfileFile& operator=(const ProfileFile&) = delete;

    const char* path() const { return m_achPath; }

  private:
    static void AppendLines(std::string& aText, const char* aSection, int aLines) {
        aText.append("[").append(aSection).append("]\n");
        for (int i = 1; i < aLines; ++i) {
            aText.append("option_").append(std::to_string(i)).append(" = value of it\n");
        }
    }

    char m_achPath[32] = "/tmp/bench_profile.XXXXXX";
};

typedef bool (*LookUp)(const char* aPath);

bool Ours(const char* aPath) {
    char achValue[256];
    get_string_from_profile(SECTION, KEY, "", achValue, sizeof(achValue), aPath);
    return std::strcmp(achValue, VALUE) == 0;
}

bool OursReadOnce(const char* aPath) {
    CCmConfigReader config;
    std::string_view value;
    return config.Read(aPath) == CM_OK && config.GetText(SECTION, KEY, value) == CM_OK &&
           value == VALUE;
}

bool SystemCalls(const char* aPath) {
    char achText[8192];
    const int nFile = open(aPath, O_RDONLY | O_CLOEXEC);
    ssize_t nRead = 0;
    while ((nRead = read(nFile, achText, sizeof(achText))) == sizeof(achText)) {
    }
    close(nFile);
    return nRead >= 0;
}

#if KELTO_WITH_INIH
int TakeKey(void* aFound, const char* aSection, const char* aKey, const char* aValue) {
    if (std::strcmp(aSection, SECTION) == 0 && std::strcmp(aKey, KEY) == 0) {
        *static_cast<bool*>(aFound) = std::strcmp(aValue, VALUE) == 0;
    }
    return 1;
}

bool Inih(const char* aPath) {
    bool bFound = false;
    return ini_parse(aPath, TakeKey, &bFound) == 0 && bFound;
}
#endif

#if KELTO_WITH_GLIB
bool GLib(const char* aPath) {
    GKeyFile* pFile = g_key_file_new();
    g_key_file_load_from_file(pFile, aPath, G_KEY_FILE_NONE, nullptr);
    char* pszValue = g_key_file_get_string(pFile, SECTION, KEY, nullptr);
    const bool bFound = pszValue != nullptr && std::strcmp(pszValue, VALUE) == 0;
    g_free(pszValue);
    g_key_file_free(pFile);
    return bFound;
}
#endif

#if KELTO_WITH_POCO
bool LookUpByPoco(const char* aPath) {
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> pFile(
        new Poco::Util::IniFileConfiguration(aPath));
    return pFile->getString(std::string(SECTION) + "." + KEY) == VALUE;
}
#endif

void AddRow(const char* aArea, const std::string& aWork, int aLines, const char* aWho,
            LookUp aLookUp) {
    Row(aArea, aWork, aWho, [=](benchmark::State& aState) {
        const ProfileFile file(aLines);
        for (auto _ : aState) {
            Check(aLookUp(file.path()), "value of the key");
        }
        CountItems(aState);
    });
}

const bool s_bAdded = [] {
    constexpr char AREA[] = "configuration";
    constexpr char WORK[] = "one key, file opened afresh, 60 lines";
    AddRow(AREA, WORK, 60, OURS, Ours);
    AddRow(AREA, WORK, 60, "floor: system calls", SystemCalls);
#if KELTO_WITH_INIH
    AddRow(AREA, WORK, 60, "inih", Inih);
#endif
#if KELTO_WITH_GLIB
    AddRow(AREA, WORK, 60, "GLib GKeyFile", GLib);
#endif
#if KELTO_WITH_POCO
    AddRow(AREA, WORK, 60, "POCO", LookUpByPoco);
#endif
    constexpr char WHOLE[] = "file read once and taken apart, 60 lines";
    AddRow(AREA, WHOLE, 60, OURS, OursReadOnce);
#if KELTO_WITH_GLIB
    AddRow(AREA, WHOLE, 60, "GLib GKeyFile", GLib);
#endif
#if KELTO_WITH_POCO
    AddRow(AREA, WHOLE, 60, "POCO", LookUpByPoco);
#endif
    for (int nLines : {10, 100, 1000, 10000}) {
        const std::string lines = std::to_string(nLines);
        AddRow("growth: look-up over lines of the file", lines, nLines, OURS, Ours);
        AddRow("growth: look-up over lines of the file", lines, nLines, "system calls",
               SystemCalls);
#if KELTO_WITH_INIH
        AddRow("growth: look-up over lines of the file", lines, nLines, "inih", Inih);
#endif
    }
    return true;
}();

}  // namespace
