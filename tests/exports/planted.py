#!/usr/bin/env python3
"""tools/exports.py finds each fault that is planted here, and nothing where there is none.

Needs clang++, llvm-nm and llvm-cxxfilt; Linux.
"""
import pathlib
import subprocess
import sys
import tempfile

TOOL = pathlib.Path(__file__).resolve().parent.parent.parent / "tools" / "exports.py"

HEADER = """
#define GIVEN __attribute__((visibility("default")))
#define KEPT __attribute__((visibility("hidden")))
namespace n {
GIVEN int Function(long aValue);
extern GIVEN int g_variable;
class GIVEN CBase {
  public:
    CBase();
    CBase(int aStep, bool) : CBase(aStep) {}
    virtual ~CBase();
    int Inline() { return Step_i(1) + s_nCalls; }
    void Outside();
  protected:
    void ForDerived();
  private:
    explicit CBase(int aStep);
    virtual void OnSlot();
    int Step_i(int aCount);
    void Other_i();
    KEPT void Hidden_i();
    static int s_nCalls;
    PLANTED_MEMBER
};
inline void CBase::Outside() { Other_i(); }
class GIVEN CLast final : public CBase {
    PLANTED_LAST
};
template <class T>
struct GIVEN CAny {
    T Get() { return Made_i(); }
    T Count();
  private:
    T Made_i();
    static int s_nMade;
};
template <class T>
int CAny<T>::s_nMade = 0;
template <class T>
T CAny<T>::Count() { return T(s_nMade); }
template <class T>
T CAny<T>::Made_i() { return T(); }
extern template struct CAny<int>;
class GIVEN CHolder {
  public:
    template <class T>
    explicit CHolder(T aValue) : CHolder(aValue, 0) {}
    ~CHolder();
  private:
    struct GIVEN CPart {
        ~CPart();
    };
    struct GIVEN CHidden {
        virtual ~CHidden();
    };
    template <class T>
    struct CDerivedT : CHidden {};
    CHolder(long aValue, int);
    CPart m_part;
};
PLANTED_DECLARATION
}
extern "C" GIVEN void n_plain();
"""

SOURCE = """
#include "header.h"
namespace n {
int Function(long aValue) { return static_cast<int>(aValue); }
int g_variable = 1;
int CBase::s_nCalls = 0;
CBase::CBase() {}
CBase::CBase(int) {}
CBase::~CBase() {}
void CBase::ForDerived() { Hidden_i(); }
void CBase::OnSlot() {}
int CBase::Step_i(int aCount) { return aCount; }
void CBase::Other_i() {}
void CBase::Hidden_i() {}
template struct CAny<int>;
CHolder::CHolder(long, int) {}
CHolder::~CHolder() {}
CHolder::CPart::~CPart() {}
CHolder::CHidden::~CHidden() {}
PLANTED_DEFINITION
}
void n_plain() {}
"""

INNER = """# Explained.
n::CBase::CBase(int)  <-  n::CBase::CBase
n::CBase::OnSlot()  <-  virtual
n::CBase::Step_i(int)  <-  n::CBase::Inline
n::CBase::Other_i()  <-  n::CBase::Outside
n::CBase::s_nCalls  <-  n::CBase::Inline
n::CAny<int>::Made_i()  <-  n::CAny::Get
n::CAny<int>::s_nMade  <-  n::CAny::Count
n::CHolder::CHolder(long, int)  <-  n::CHolder::CHolder
n::CHolder::CPart::~CPart()  <-  n::CHolder
n::CHolder::CHidden::~CHidden()  <-  n::CHolder::CDerivedT
vtable for n::CHolder::CHidden  <-  n::CHolder::CDerivedT
typeinfo for n::CHolder::CHidden  <-  n::CHolder::CDerivedT
typeinfo name for n::CHolder::CHidden  <-  n::CHolder::CDerivedT
"""

# What is planted, lines of the list of steps that replace or follow others, and what the tool says;
# an empty text: it finds nothing.
CASES = [
    ("nothing", {}, INNER, ""),
    ("a private step that the library exports",
     {"MEMBER": "void Planted_i();", "DEFINITION": "void CBase::Planted_i() {}"}, INNER,
     "given by no public declaration: n::CBase::Planted_i()"),
    ("an exported function that no header declares",
     {"DEFINITION": "GIVEN void Planted(); void Planted() {}"}, INNER,
     "given by no public declaration: n::Planted()"),
    ("an exported function that is declared as a friend alone",
     {"MEMBER": "friend GIVEN void Planted();",
      "DEFINITION": "GIVEN void Planted(); void Planted() {}"}, INNER,
     "given by no public declaration: n::Planted()"),
    ("a public function of a private class",
     {"MEMBER": "class GIVEN CInner { public: void Planted(); };",
      "DEFINITION": "void CBase::CInner::Planted() {}"}, INNER,
     "given by no public declaration: n::CBase::CInner::Planted()"),
    ("the table of a private class",
     {"MEMBER": "struct GIVEN CInner { virtual void Planted(); };",
      "DEFINITION": "void CBase::CInner::Planted() {}"}, INNER,
     "given by no public declaration: vtable for n::CBase::CInner"),
    ("the table of a class that no header declares",
     {"DEFINITION": "struct GIVEN CPlanted { virtual ~CPlanted(); }; CPlanted::~CPlanted() {}"},
     INNER, "given by no public declaration: vtable for n::CPlanted"),
    ("a private step that is part of the binary interface",
     {"MEMBER": "void Planted_i();", "DEFINITION": "void CBase::Planted_i() {}"},
     INNER + "n::CBase::Planted_i()  <-  stated\n", ""),
    ("a function that is said to be part of the binary interface and stands in no header",
     {"DEFINITION": "GIVEN void Planted(); void Planted() {}"},
     INNER + "n::Planted()  <-  stated\n", "in no public header: n::Planted()"),
    ("a private virtual function that nothing explains", {},
     INNER.replace("n::CBase::OnSlot()  <-  virtual\n", ""),
     "given by no public declaration: n::CBase::OnSlot()"),
    ("a virtual function of a class that nobody can derive from",
     {"LAST": "virtual void Planted();", "DEFINITION": "void CLast::Planted() {}"},
     INNER + "n::CLast::Planted()  <-  virtual\n", "not called by virtual: n::CLast::Planted()"),
    ("a step that is said to be virtual and is not", {},
     INNER.replace("Step_i(int)  <-  n::CBase::Inline", "Step_i(int)  <-  virtual"),
     "not called by virtual: n::CBase::Step_i(int)"),
    ("a step that the caller does not call", {},
     INNER.replace("Step_i(int)  <-  n::CBase::Inline", "Step_i(int)  <-  n::CBase::Outside"),
     "not called by n::CBase::Outside: n::CBase::Step_i(int)"),
    ("a constructor that the caller does not call", {},
     INNER.replace("CBase(int)  <-  n::CBase::CBase", "CBase(int)  <-  n::CBase::Inline"),
     "not called by n::CBase::Inline: n::CBase::CBase(int)"),
    ("a template's step that the caller does not call", {},
     INNER.replace("n::CAny::Get", "n::CBase::Inline"),
     "not called by n::CBase::Inline: n::CAny<int>::Made_i()"),
    ("the table of a class that the caller does not derive from", {},
     INNER.replace("vtable for n::CHolder::CHidden  <-  n::CHolder::CDerivedT",
                   "vtable for n::CHolder::CHidden  <-  n::CHolder::CPart"),
     "not called by n::CHolder::CPart: vtable for n::CHolder::CHidden"),
    ("a destructor of what the caller does not hold", {},
     INNER.replace("~CPart()  <-  n::CHolder", "~CPart()  <-  n::CBase"),
     "not called by n::CBase: n::CHolder::CPart::~CPart()"),
    ("an explained step that is hidden", {}, INNER + "n::CBase::Hidden_i()  <-  n::CBase::Inline\n",
     "exports-inner.txt: 1\n    not exported: n::CBase::Hidden_i()"),
    ("an explained name that is public", {}, INNER + "n::Function(long)  <-  n::CBase::Inline\n",
     "given by a public declaration: n::Function(long)"),
    ("an explained name that is protected", {},
     INNER + "n::CBase::ForDerived()  <-  n::CBase::Outside\n",
     "given by a public declaration: n::CBase::ForDerived()"),
    ("a name without its reason", {},
     INNER.replace("n::CBase::OnSlot()  <-  virtual", "n::CBase::OnSlot()"),
     "says not what refers to it: n::CBase::OnSlot()"),
]


def run(*command):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True)


def fault_of(directory, planted, inner, expected):
    texts = {"header.h": HEADER, "source.cpp": SOURCE}
    (directory / "include").mkdir()
    for name, text in texts.items():
        for place in ("MEMBER", "LAST", "DECLARATION", "DEFINITION"):
            text = text.replace("PLANTED_" + place, planted.get(place, ""))
        (directory / "include" / name).write_text(text)
    (directory / "exports-inner.txt").write_text(inner)
    library = directory / "library.so"
    build = run("clang++", "-std=c++17", "-shared", "-fPIC", "-O0", "-fvisibility=hidden",
                "-fvisibility-inlines-hidden", directory / "include" / "source.cpp", "-o", library)
    if build.returncode:
        return build.stderr
    options = ("--list", directory / "exports.txt", "--inner", directory / "exports-inner.txt",
               "--headers", directory / "include")
    run(TOOL, "update", library, *options)
    check = run(TOOL, "check", library, *options)
    said = check.stdout + check.stderr
    if (check.returncode == 0) != (expected == "") or expected not in check.stdout:
        return f"status {check.returncode}, {said}"
    return ""


def main():
    failed = 0
    for what, planted, inner, expected in CASES:
        with tempfile.TemporaryDirectory() as directory:
            fault = fault_of(pathlib.Path(directory), planted, inner, expected)
        if fault:
            failed += 1
            print(f"{what}: expected {expected or 'no fault'!r}, got {fault}")
    if failed:
        sys.exit(f"{failed} of {len(CASES)} planted faults are not found as they should be")
    print(f"each of the {len(CASES)} cases is told as it should be")


if __name__ == "__main__":
    main()
