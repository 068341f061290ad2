// What the fuzz targets share. A target is one file in targets/ that defines
// LLVMFuzzerTestOneInput; it stops the program when a property does not hold.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerInitialize(int* aArgc, char*** aArgv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);

namespace kelto_fuzz {

inline void Require(bool aHolds, const char* aWhat) {
    if (!aHolds) {
        std::fprintf(stderr, "does not hold: %s\n", aWhat);
        std::abort();
    }
}

// Takes an input apart, from the front.
class Input {
  public:
    Input(const uint8_t* aData, size_t aSize) : m_pData(aData), m_nLeft(aSize) {}

    bool AtEnd() const { return m_nLeft == 0; }
    // 0 past the end.
    unsigned Byte() {
        if (m_nLeft == 0) {
            return 0;
        }
        --m_nLeft;
        return *m_pData++;
    }
    template <class Number>
    Number Bits() {
        uint64_t ullBits = 0;
        for (size_t i = 0; i < sizeof(Number); ++i) {
            ullBits = ullBits << 8 | Byte();
        }
        return static_cast<Number>(ullBits);
    }
    // Up to the next line end.
    std::string Line() {
        std::string sLine;
        while (m_nLeft > 0) {
            const char ch = static_cast<char>(Byte());
            if (ch == '\n') {
                break;
            }
            sLine += ch;
        }
        return sLine;
    }
    std::string Rest() {
        std::string sRest(reinterpret_cast<const char*>(m_pData), m_nLeft);
        m_nLeft = 0;
        return sRest;
    }

  private:
    const uint8_t* m_pData;
    size_t m_nLeft;
};

// A file of the process's own whose content is replaced by each input.
class ScratchFile {
  public:
    // aName: below a home directory of the process's own, which the library is told about.
    explicit ScratchFile(const std::string& aName);
    // aOther: whose home it shares, and which ends after it.
    ScratchFile(const ScratchFile& aOther, const std::string& aName);
    ~ScratchFile();
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string& path() const { return m_sPath; }
    void SetContent(const std::string& aContent) const;
    std::string Content() const;

  private:
    void Open(const std::string& aName);

    std::string m_sHome;
    bool m_bOwnsHome = true;
    std::string m_sPath;
    int m_nFile = -1;
};

// Empty when the file cannot be read.
std::string ContentOf(const std::string& aPath);

}  // namespace kelto_fuzz

#endif  // FUZZ_FUZZ_H
