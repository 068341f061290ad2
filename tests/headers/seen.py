#!/usr/bin/env python3
"""What a host gets to see with a header: who includes a message block does not get sockets, and
CmPlatform.h shows the types of this platform alone, in the library's namespace, without a macro.

    tests/headers/seen.py COMPILER [ROOT]
"""
import pathlib
import re
import subprocess
import sys

COMPILER = sys.argv[1]
ROOT = pathlib.Path(sys.argv[2] if len(sys.argv) > 2 else __file__).resolve()
INCLUDE = (ROOT if ROOT.is_dir() else ROOT.parents[2]) / "include"

# What the system has for sockets and names.
SOCKETS = {"sys/socket.h", "netinet/in.h", "arpa/inet.h", "net/if.h", "netdb.h", "sys/un.h"}
# The headers that hand it on, for their functions take socket addresses; with what includes them.
WITH_SOCKETS = {"CmConfigReader.h", "CmResolver.h", "CmStrict.h", "CmUtilMisc.h", "kelto_util.h"}


def compiled(header, *options):
    return subprocess.run([COMPILER, "-std=c++17", f"-I{INCLUDE}", "-x", "c++", *options, "-"],
                          input=f'#include "{header}"\n', capture_output=True, text=True,
                          check=True).stdout


def socket_headers(header):
    """Those of SOCKETS that `header` brings along."""
    files = compiled(header, "-M").replace("\\\n", " ").split()
    return {name for name in SOCKETS for file in files if file.endswith("/" + name)}


def errors():
    for path in sorted(INCLUDE.glob("*.h")):
        seen = socket_headers(path.name)
        if path.name in WITH_SOCKETS and not seen:
            yield f"{path.name}: brings no sockets; take it off the list in seen.py"
        if path.name not in WITH_SOCKETS and seen:
            yield f"{path.name}: brings {', '.join(sorted(seen))}"
    platform = (INCLUDE / "CmPlatform.h").read_text()
    for macro in re.findall(r"^\s*#\s*define\s+(\w+)", platform, re.MULTILINE):
        if macro != "CM_PLATFORM_H":
            yield f"CmPlatform.h: macro {macro}"
    text = compiled("CmPlatform.h", "-E")
    of_mac = re.search(r"\bCmConditionSemaphore\b", text)
    if bool(of_mac) != ("__APPLE__" in compiled("CmPlatform.h", "-E", "-dM")):
        yield "CmPlatform.h: shows another platform's semaphore, or not its own"


def main():
    found = list(errors())
    print("\n".join(found) or "headers show what they are for")
    return 1 if found else 0


if __name__ == "__main__":
    raise SystemExit(main())
