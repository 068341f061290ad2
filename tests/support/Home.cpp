#include "support/Home.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "CmConfig.h"

namespace kelto_test {

using UTIL_NS::g_def_kelto_home_dir;

ScopedHome::ScopedHome() : m_sPrevious(g_def_kelto_home_dir) {
    char szPath[] = "/tmp/kXXXXXX";
    if (mkdtemp(szPath) == nullptr) {
        ADD_FAILURE() << "no temporary directory";
        return;
    }
    m_sPath = std::string(szPath) + "/";
    std::filesystem::create_directory(m_sPath + "conf");
    static_assert(sizeof("/tmp/kXXXXXX/") <= sizeof(g_def_kelto_home_dir), "the home must fit");
    strcpy(g_def_kelto_home_dir, m_sPath.c_str());
}

ScopedHome::~ScopedHome() {
    strcpy(g_def_kelto_home_dir, m_sPrevious.c_str());
    if (!m_sPath.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_sPath, ignored);
    }
}

void ScopedHome::WriteConfig(const std::string& aContent) const {
    WriteFile(m_sPath + "conf/kelto.cfg", aContent);
}

// Written over rather than anew: some file systems flush a file that was emptied when it is closed.
void WriteFile(const std::string& aPath, const std::string& aContent) {
    std::ofstream(aPath, std::ios::app).flush();
    std::fstream file(aPath, std::ios::binary | std::ios::in | std::ios::out);
    file.write(aContent.data(), static_cast<std::streamsize>(aContent.size()));
    EXPECT_TRUE(file.flush().good()) << aPath;
    std::error_code error;
    std::filesystem::resize_file(aPath, aContent.size(), error);
    EXPECT_FALSE(error) << aPath;
}

std::string ReadFile(const std::string& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace kelto_test
