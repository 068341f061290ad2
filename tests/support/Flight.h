// Flight recorders of tests, in directories of their own.
#ifndef TESTS_SUPPORT_FLIGHT_H
#define TESTS_SUPPORT_FLIGHT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "CmFlight.h"
#include "support/FlightFile.h"

namespace kelto_test {

// A new directory of permissions 0700, which goes at its end with what is in it.
class ScopedDirectory {
  public:
    ScopedDirectory() {
        char szPath[] = "/tmp/kfXXXXXX";
        EXPECT_NE(nullptr, mkdtemp(szPath));
        m_sPath = szPath;
    }
    ~ScopedDirectory() { std::filesystem::remove_all(m_sPath); }
    ScopedDirectory(const ScopedDirectory&) = delete;
    ScopedDirectory& operator=(const ScopedDirectory&) = delete;

    const std::string& path() const { return m_sPath; }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_sPath)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

  private:
    std::string m_sPath;
};

// The recorder, open in a directory of its own; at its end the calling thread has no ring.
class ScopedFlight {
  public:
    explicit ScopedFlight(uint32_t aUnits = 256, uint32_t aThreads = 4, bool aLines = false) {
        UTIL_NS::CCmFlightOptions options;
        options.m_bLines = aLines;
        options.m_dwUnits = aUnits;
        options.m_dwThreads = aThreads;
        options.m_pszDirectory = m_directory.path().c_str();
        EXPECT_EQ(UTIL_NS::CM_OK, UTIL_NS::CCmFlight::Open(options));
        char szPath[1024];
        UTIL_NS::CCmFlight::CopyPath(szPath, sizeof(szPath));
        m_sPath = szPath;
        EXPECT_NE("", m_sPath);
    }
    ~ScopedFlight() {
        UTIL_NS::CCmFlight::Detach(UTIL_NS::CCmFlight::RingOfThisThread());
        UTIL_NS::CCmFlight::Close();
    }
    ScopedFlight(const ScopedFlight&) = delete;
    ScopedFlight& operator=(const ScopedFlight&) = delete;

    const std::string& path() const { return m_sPath; }
    const ScopedDirectory& directory() const { return m_directory; }
    // What the file says now.
    FlightFile Read() const {
        FlightFile file(m_sPath);
        EXPECT_TRUE(file.isValid);
        return file;
    }
    // Of the one thread of that name.
    FlightThread ReadThread(const std::string& aName) const {
        const FlightFile file = Read();
        const std::vector<const FlightThread*> found = file.Named(aName);
        EXPECT_EQ(1u, found.size()) << aName;
        return found.empty() ? FlightThread() : *found[0];
    }

  private:
    const ScopedDirectory m_directory;
    std::string m_sPath;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_FLIGHT_H
