# shellcheck shell=sh
# Installs what a script needs and the machine lacks. POSIX shell, to be sourced:
#
#   KELTO_CALLER=test
#   . tools/packages.sh
#   kelto_need cmake cmake cmake              # a command, its Debian package, its Homebrew formula
#   kelto_need_header gtest/gtest.h libgtest-dev googletest
#   kelto_install_needed                      # installs all of it at once, or says why not and exits
#
# Nothing happens, and no network is needed, when nothing is missing.

kelto_missing_apt=
kelto_missing_brew=

kelto_say() {
    echo "$KELTO_CALLER: $*"
}

kelto_give_up() {
    echo "$KELTO_CALLER: $*" >&2
    exit 1
}

kelto_is_mac() {
    [ "$(uname -s)" = Darwin ]
}

kelto_compiler() {
    for kelto_cxx in ${CXX:+"$CXX"} c++ g++ clang++; do
        if command -v "$kelto_cxx" >/dev/null 2>&1; then
            echo "$kelto_cxx"
            return
        fi
    done
}

# kelto_add APT BREW: notes both as missing. "-": that system needs nothing.
kelto_add() {
    if [ "$1" != - ]; then kelto_missing_apt="$kelto_missing_apt $1"; fi
    if [ "$2" != - ]; then kelto_missing_brew="$kelto_missing_brew $2"; fi
}

# kelto_need COMMAND APT BREW
kelto_need() {
    command -v "$1" >/dev/null 2>&1 || kelto_add "$2" "$3"
}

# kelto_need_compiler: any C++ compiler; the one of the system on a Mac.
kelto_need_compiler() {
    if kelto_is_mac; then
        xcode-select -p >/dev/null 2>&1 ||
            kelto_give_up "missing: Xcode command line tools (the C++ compiler); install them with 'xcode-select --install' and run again."
    elif [ -z "$(kelto_compiler)" ]; then
        kelto_add g++ -
    fi
}

# kelto_need_header HEADER APT BREW
kelto_need_header() {
    kelto_cxx=$(kelto_compiler)
    if [ -n "$kelto_cxx" ]; then
        for kelto_prefix in /usr/local /opt/homebrew; do
            if echo "#include <$1>" |
                "$kelto_cxx" -std=c++17 -I "$kelto_prefix/include" -E -x c++ - >/dev/null 2>&1; then
                return
            fi
        done
    fi
    kelto_add "$2" "$3"
}

# kelto_quietly COMMAND...: its output goes to $kelto_log, and it asks nothing.
kelto_quietly() {
    "$@" >>"$kelto_log" 2>&1 </dev/null
}

kelto_apt_install() {
    kelto_as_root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 ||
            kelto_give_up "missing packages:$kelto_missing_apt; installing them takes root or sudo, so please have them installed and run again."
        # A person may type a password; elsewhere sudo must not wait for one.
        if [ ! -t 0 ] || ! sudo -v; then
            sudo -n true 2>/dev/null ||
                kelto_give_up "missing packages:$kelto_missing_apt; installing them takes root or sudo, so please have them installed and run again."
        fi
        kelto_as_root=sudo
    fi
    kelto_say "installing with apt-get:$kelto_missing_apt"
    # A source that cannot be reached is no reason to stop: the install tells whether it mattered.
    kelto_quietly $kelto_as_root apt-get -o DPkg::Lock::Timeout=120 update || true
    # The names are words of the list, hence no quotes.
    # shellcheck disable=SC2086
    kelto_quietly $kelto_as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=120 -o Acquire::Retries=3 \
        install -y --no-install-recommends $kelto_missing_apt ||
        kelto_give_up "missing packages:$kelto_missing_apt; apt-get could not install them (no network?), see $kelto_log."
}

kelto_brew_install() {
    kelto_say "installing with brew:$kelto_missing_brew"
    # shellcheck disable=SC2086
    kelto_quietly brew install $kelto_missing_brew ||
        kelto_give_up "missing packages:$kelto_missing_brew; brew could not install them (no network?), see $kelto_log."
}

kelto_install_needed() {
    kelto_log=${TMPDIR:-/tmp}/kelto-install.$$.log
    if kelto_is_mac; then
        if [ -z "$kelto_missing_brew" ]; then return; fi
        command -v brew >/dev/null 2>&1 ||
            kelto_give_up "missing packages:$kelto_missing_brew; there is no brew to install them with, so please install them and run again."
        kelto_brew_install
    else
        if [ -z "$kelto_missing_apt" ]; then return; fi
        command -v apt-get >/dev/null 2>&1 ||
            kelto_give_up "missing packages (by their Debian names):$kelto_missing_apt; there is no apt-get to install them with, so please install them and run again."
        kelto_apt_install
    fi
    rm -f "$kelto_log"
    kelto_missing_apt=
    kelto_missing_brew=
}
