# shellcheck shell=bash
# Shared by demo.sh, test.sh, bench.sh and package.sh. Source it from the clone's root, in bash with
# `set -euo pipefail`. A script reads its arguments first, then it calls take_clone, and may then install and build.

# shellcheck source=scripts/packages.sh
. scripts/packages.sh

log_directory=build/log

# For the arguments that a script does not know by itself. The comment at its head is its help.
help_or_refuse() { # ARGUMENT...
    [ $# -gt 0 ] || return 0
    case $1 in
    -h | --help)
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "${0##*/}"
        exit 0
        ;;
    esac
    echo "${0##*/}: there is no argument $1; --help lists them" >&2
    exit 2
}

# Only one script runs in a clone at a time: all write below build/. Child processes inherit the descriptor, so the
# next run also waits for what a killed run leaves behind, such as a compiler. test.sh runs package.sh under its own
# lock.
take_clone() {
    mkdir -p "$log_directory"
    [ /proc/self/fd/8 -ef build/lock ] || exec 8>build/lock
    flock -n 8 || {
        echo "waiting for another script of this clone to end"
        flock 8
    }
    if [ -n "${TMPDIR-}" ] && ! { [ -d "$TMPDIR" ] && [ -w "$TMPDIR" ]; }; then
        echo "TMPDIR=$TMPDIR names no directory that can be written to: /tmp is used instead" >&2
        unset TMPDIR
    fi
}

# Runs a command and shows its output only if it fails.
quietly() { # NAME COMMAND...
    "${@:2}" >"$log_directory/$1.log" 2>&1 </dev/null || show_failure "$@"
}

show_failure() { # NAME COMMAND...
    tail -n 40 "$log_directory/$1.log" >&2
    echo "failed: ${*:2} (all it printed: $log_directory/$1.log)" >&2
    return 1
}

# Keeps the output of a command, Ninja or CTest, in a log. On a terminal, one line counts its steps: [12/56].
counted() { # NAME COMMAND...
    "${@:2}" 2>&1 </dev/null | tee "$log_directory/$1.log" | count_steps
}

# [12/56] Building CXX object simulated/CMakeFiles/simulated.dir/Tool.cpp.o
#  12/56 Test  #12: Log.IsWritten ..............   Passed    0.02 sec
count_steps() {
    local line
    if ! [ -t 2 ] || [ "${TERM:-dumb}" = dumb ]; then
        cat >/dev/null
        return
    fi
    while IFS= read -r line; do
        [[ $line =~ ^\ *\[?([0-9]+/[0-9]+)(\]|\ Test) ]] && printf '\r[%s]\e[K' "${BASH_REMATCH[1]}"
    done >&2
    printf '\r\e[K' >&2
}

# CMake 3.20 does. With an older one the release build has to do.
knows_presets() { cmake --list-presets >/dev/null 2>&1; }

configure() { # CONFIGURE-PRESET OPTION...
    if knows_presets; then
        quietly "configure-$1" cmake --preset "$@"
    elif [ "$1" = release ]; then
        quietly configure-release cmake -G Ninja -S . -B build/release -DCMAKE_BUILD_TYPE=Release \
            -DCMAKE_INSTALL_LIBDIR=lib -DZN_WERROR=ON "${@:2}"
    else
        echo "the preset $1 needs CMake 3.20" >&2
        return 1
    fi
}

# Estimates the time from the number of steps that Ninja has to do.
build() { # BUILD-PRESET OPTION-OF-NINJA...
    local steps seconds_per_step=3 command=(cmake --build --preset "$1" --)
    knows_presets || command=(cmake --build build/release --)
    steps=$("${command[@]}" -n | sed -n '$s/^\[[0-9]*\/\([0-9]*\)\].*/\1/p')
    [ -n "$steps" ] || return 0
    [ "$1" != tidy ] || seconds_per_step=10
    echo "building ($1): $steps steps, about $((steps * seconds_per_step / $(nproc) / 10 + 1))0 s"
    counted "build-$1" "${command[@]}" "${@:2}" || show_failure "build-$1" "${command[@]}" "${@:2}"
}

# The command line and the simulated machine, in build/release. The tests need more packages; a build directory of
# test.sh keeps its tests.
build_demo() {
    local without_tests=()
    [ -e build/release/build.ninja ] || without_tests=(-DBUILD_TESTING=OFF)
    configure release "${without_tests[@]}"
    build demo
}
