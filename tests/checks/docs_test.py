"""The checks of the pages that have no planted faults of their own. Links, names, snippets, layers,
the map of the tests and declarations have: --faults, which ./test and tests/docs/reference run."""

import unittest

from planted import ROOT, Planted


class Docs(Planted):
    def assert_found(self, command, faults):
        self.assert_passes(*command)
        for file, old, new, says in faults:
            with self.subTest(says):
                before = (self.root / file).read_text()
                self.replace(file, old, new)
                self.assert_fails(*command, says=says)
                self.write(file, before)

    def test_OtherTraceLinesAreFound(self):
        self.copy("tests/docs/trace_lines.py", "docs/trace-lines.md", "include", "source")
        self.assert_found(("python3", "tests/docs/trace_lines.py"), [
            ("source/util/CmLogStream.cpp", "CM_WARNING_TRACE(", 'CM_WARNING_TRACE("planted");\n CM_WARNING_TRACE(',
             "not on the page: ('warning', 'planted"),
            ("source/util/CmLogStream.cpp", "CM_WARNING_TRACE(", "CM_INFO_TRACE(", "not in the sources: ('warning'"),
        ])

    def test_OtherListsAreFound(self):
        self.copy("tests/docs/lists.py", "tools", "docs", "README.md", "include")
        self.assert_passes("python3", "tests/docs/lists.py")
        for name in ("tools/planted", "docs/planted.md", "include/CmPlanted.h"):
            with self.subTest(name):
                self.write(name, "")
                self.assert_fails("python3", "tests/docs/lists.py", says=f"lacks {name.split('/')[-1]}")
                (self.root / name).unlink()
        self.assert_found(("python3", "tests/docs/lists.py"), [
            ("docs/parts.dot", "{", "{ ", "docs/parts.svg: lacks"),
            ("docs/tracing.md", "| off |", "| on |", "docs/tracing.md: there is no"),
            ("README.md", "| `CmAddress.h", "| `CmPlanted.h`, `CmAddress.h", "README.md: there is no CmPlanted.h"),
        ])

    def test_AStepOfTheGuideThatGoesAnotherWayIsFound(self):
        self.copy("tests/docs/ten_minutes.py")
        page = "# A guide\n\n```console\n$ echo one\none\n$ printf 'two\\nthree\\n'\ntwo\n...\n```\n"
        self.write("page.md", page)
        command = ("python3", "tests/docs/ten_minutes.py", ".", "page.md")
        self.assert_found(command, [
            ("page.md", "\none\n", "\ntwo\n", "1 went another way"),
            ("page.md", "two\n...", "...", "1 went another way"),
            ("page.md", page, "# Nothing\n", "0 commands"),
        ])

    def test_DeadLinksOfThePagesAreFound(self):
        self.copy("tests/docs/links")
        for name in ("README.md", "docs/a.md", "tests/README.md", "examples/one/README.md"):
            self.write(name, "# Here\n[good](#here)\n")
        self.assert_passes("tests/docs/links")
        for name in ("README.md", "docs/a.md", "tests/README.md", "examples/one/README.md"):
            for link in ("missing.md", "#there", f"/{name}#here", "missing.md#here"):
                with self.subTest(name + link):
                    self.write(name, f"# Here\n[dead]({link})\n")
                    self.assert_fails("tests/docs/links", says=", 1 dead")
                    self.write(name, "# Here\n[good](#here)\n")

    def test_TheReferenceRefusesWhatDoxygenDoesNotUnderstand(self):
        self.copy("tests/docs/reference", "tests/docs/declarations", "tests/docs/links", "docs/Doxyfile",
                  "docs/pages.css", "README.md")
        for name in ("tools/a.md", "examples/a.md"):
            self.write(name, "# Page\n")
        self.write("README.md", "# Page\n")
        self.write("docs/index.md", "# Page\n")
        good = "/// A header.\n/// \\file\n\n/// Documented.\nint Planted(int aNumber);\n"
        self.write("include/CmPlanted.h", good)
        status, said = self.run_in("tests/docs/reference")
        self.assertIn("declarations, 0 at fault", said)
        self.write("include/CmPlanted.h", good + "int Below();\n")
        self.assert_fails("tests/docs/reference", says="Below: has no comment of its own")


if __name__ == "__main__":
    unittest.main()
