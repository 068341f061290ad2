// A home directory of a test's own, and the files in it.
#ifndef TESTS_SUPPORT_HOME_H
#define TESTS_SUPPORT_HOME_H

#include <string>

namespace kelto_test {

// While it lives, g_def_kelto_home_dir names a new empty directory "/tmp/kXXXXXX/" (which has a
// directory "conf"); the previous home returns and the directory goes at its end. One at a time.
class ScopedHome {
  public:
    ScopedHome();
    ~ScopedHome();
    ScopedHome(const ScopedHome&) = delete;
    ScopedHome& operator=(const ScopedHome&) = delete;

    // With a slash at its end.
    const std::string& path() const { return m_sPath; }
    // Writes aContent as the main configuration file, "conf/kelto.cfg".
    void WriteConfig(const std::string& aContent) const;

  private:
    std::string m_sPath;
    std::string m_sPrevious;
};

// Replaces the file's content.
void WriteFile(const std::string& aPath, const std::string& aContent);
// The whole content; empty when there is no such file.
std::string ReadFile(const std::string& aPath);

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_HOME_H
