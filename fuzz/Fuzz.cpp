#include "Fuzz.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "CmConfig.h"
#include "CmSystem.h"
#include "CmTrace.h"

namespace {

void DropLine(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {}

// No input reaches the network: names of even length are known, and are 192.0.2.1.
hostent* ResolveByLength(const char* aName) {
    static in_addr s_address = {htonl(0xC0000201)};
    static char* s_apAddresses[] = {reinterpret_cast<char*>(&s_address), nullptr};
    static char* s_apAliases[] = {nullptr};
    static hostent s_host = {nullptr, s_apAliases, AF_INET, sizeof(s_address), s_apAddresses};
    return strlen(aName) % 2 == 0 ? &s_host : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*aArgc*/, char*** /*aArgv*/) {
    set_util_external_trace_sink(DropLine);
    UTIL_NS::g_cmSystem.gethostbyname = ResolveByLength;
    return 0;
}

namespace kelto_fuzz {

ScratchFile::ScratchFile(const std::string& aName) {
    char szHome[] = "/tmp/fXXXXXX";
    Require(mkdtemp(szHome) != nullptr, "there is a temporary directory");
    m_sHome = std::string(szHome) + "/";
    Require(m_sHome.size() < sizeof(UTIL_NS::g_def_kelto_home_dir), "the home fits");
    strcpy(UTIL_NS::g_def_kelto_home_dir, m_sHome.c_str());
    Open(aName);
}

ScratchFile::ScratchFile(const ScratchFile& aOther, const std::string& aName)
    : m_sHome(aOther.m_sHome), m_bOwnsHome(false) {
    Open(aName);
}

void ScratchFile::Open(const std::string& aName) {
    m_sPath = m_sHome + aName;
    std::filesystem::create_directories(std::filesystem::path(m_sPath).parent_path());
    m_nFile = open(m_sPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    Require(m_nFile >= 0, "the scratch file can be opened");
}

ScratchFile::~ScratchFile() {
    close(m_nFile);
    if (m_bOwnsHome) {
        std::error_code ignored;
        std::filesystem::remove_all(m_sHome, ignored);
    }
}

// Written over rather than anew: some file systems flush a file that was emptied when it is closed.
void ScratchFile::SetContent(const std::string& aContent) const {
    const auto nSize = static_cast<ssize_t>(aContent.size());
    Require(pwrite(m_nFile, aContent.data(), aContent.size(), 0) == nSize &&
                ftruncate(m_nFile, nSize) == 0,
            "the scratch file can be written");
}

std::string ScratchFile::Content() const {
    return ContentOf(m_sPath);
}

std::string ContentOf(const std::string& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace kelto_fuzz
