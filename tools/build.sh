# shellcheck shell=sh
# Configures and builds. POSIX shell, to be sourced after packages.sh, from the project's root.

kelto_need_build_tools() {
    kelto_need_compiler
    kelto_need cmake cmake cmake
    kelto_need ninja ninja-build ninja
    kelto_need python3 python3 python3
    kelto_need_header gtest/gtest.h libgtest-dev googletest
}

kelto_jobs() {
    getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2
}

# Tests mostly wait, the end of each process alone 200 ms, so more of them than processors run.
kelto_test_jobs() {
    echo $((4 * $(kelto_jobs)))
}

# kelto_follow NAME: copies what a build says to descriptor 3 and shows how far it has come: on a
# terminal in one line, elsewhere in a line for every tenth.
kelto_follow() {
    kelto_tenth=0
    while IFS= read -r kelto_line; do
        printf '%s\n' "$kelto_line" >&3
        kelto_step=${kelto_line#"["}
        kelto_step=${kelto_step%%"]"*}
        case $kelto_step in
        "$kelto_line" | *[!0-9/]* | /* | */ | */*/*) continue ;;
        */*) ;;
        *) continue ;;
        esac
        kelto_done=${kelto_step%/*}
        kelto_all=${kelto_step#*/}
        if [ -t 1 ]; then
            printf '\r%s: %s: step %s of %s' "$KELTO_CALLER" "$1" "$kelto_done" "$kelto_all"
            [ "$kelto_done" -ne "$kelto_all" ] || echo
        elif [ $((10 * kelto_done / kelto_all)) -gt "$kelto_tenth" ]; then
            kelto_tenth=$((10 * kelto_done / kelto_all))
            kelto_say "$1: step $kelto_done of $kelto_all"
        fi
    done
}

# kelto_build DIRECTORY [cmake option...]: needs no presets, since these ask for a newer CMake than
# the project does. What it prints goes to a file unless it fails. Builds $kelto_target alone if set.
kelto_build() {
    kelto_dir=$1
    shift
    mkdir -p "$kelto_dir"
    kelto_say "building in $kelto_dir"
    rm -f "$kelto_dir/built"
    {
        cmake -S . -B "$kelto_dir" -G Ninja "$@" &&
            cmake --build "$kelto_dir" --parallel "$(kelto_jobs)" --target "${kelto_target:-all}" &&
            : >"$kelto_dir/built"
    } 2>&1 </dev/null | kelto_follow "building" 3>"$kelto_dir/build.log"
    if [ ! -e "$kelto_dir/built" ]; then
        cat "$kelto_dir/build.log" >&2
        kelto_give_up "the build in $kelto_dir failed."
    fi
}
