# shellcheck shell=bash
# Shared by demo.sh, test.sh, bench.sh and package.sh: installs missing packages and builds.
# Source it from the clone's root, in bash with `set -euo pipefail`.

log_folder=build/log
mkdir -p "$log_folder"

# Only one of them runs in a clone at a time: all write below build/. Child processes inherit the descriptor, so the
# next run also waits for what a killed run leaves behind, such as a compiler.
[ /proc/self/fd/8 -ef build/lock ] || exec 8>build/lock # test.sh runs package.sh under its own lock
flock -n 8 || {
    echo "waiting for another script of this clone to end"
    flock 8
}

if [ -n "${TMPDIR-}" ] && ! { [ -d "$TMPDIR" ] && [ -w "$TMPDIR" ]; }; then
    echo "TMPDIR=$TMPDIR names no folder that can be written to: /tmp is used instead" >&2
    unset TMPDIR
fi

# Runs a command and shows its output only if it fails.
quietly() { # NAME COMMAND...
    local log="$log_folder/$1.log"
    shift
    if ! "$@" >"$log" 2>&1 </dev/null; then
        tail -n 40 "$log" >&2
        echo "failed: $* (all it printed: $log)" >&2
        return 1
    fi
}

debian_packages() { # GROUP
    case $1 in
    build) echo g++ cmake ninja-build libboost-dev libcli11-dev nlohmann-json3-dev ;;
    tests) echo libgtest-dev libgmock-dev ;;
    manual) echo scdoc groff-base ;;
    fleet) echo ansible-core ;;
    lint) echo shellcheck clang-tidy ;;
    packages) echo clang dpkg-dev file lintian pkg-config rpm rpmlint ;;
    esac
}

redhat_packages() { # GROUP
    case $1 in
    build) echo gcc-c++ cmake ninja-build boost-devel cli11-devel json-devel ;;
    tests) echo gtest-devel gmock-devel ;;
    sanitizers) echo libasan libubsan libtsan ;;
    manual) echo scdoc groff-base ;;
    fleet) echo ansible-core ;;
    lint) echo ShellCheck clang-tools-extra ;;
    esac
}

is_on_debian() { dpkg-query -W -f '${Status}' "$1" 2>/dev/null | grep -q 'ok installed'; }

is_on_redhat() { rpm -q --quiet "$1"; }

install_on_debian() { # PACKAGE...
    quietly apt-update as_root apt-get update
    quietly apt-install as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# Ninja, the test tools and the header libraries are in CRB and EPEL. Some members of the family have other names
# for them, some need neither.
install_on_redhat() { # PACKAGE...
    quietly dnf-epel as_root dnf install -y dnf-plugins-core epel-release 2>/dev/null || true
    quietly dnf-crb as_root dnf config-manager --set-enabled crb 2>/dev/null || true
    quietly dnf-install as_root dnf install -y "$@" || {
        echo "are the repositories CRB (CodeReady Builder) and EPEL enabled?" >&2
        return 1
    }
}

can_be_root() { [ "$(id -u)" -eq 0 ] || sudo -n true 2>/dev/null; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo -n "$@"; fi
}

# Installs the missing packages of the groups. Without the rights to do so, names them and fails.
install_missing() { # GROUP...
    local family group package missing=()
    if command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; then
        family=debian
    elif command -v dnf >/dev/null; then
        family=redhat
    else
        echo "this machine has neither apt nor dnf: install a C++17 compiler, CMake 3.20, Ninja, Boost," \
            "CLI11, nlohmann-json and, for the tests, GoogleTest by hand" >&2
        return 0
    fi
    for group in "$@"; do
        for package in $("${family}_packages" "$group"); do
            "is_on_$family" "$package" || missing+=("$package")
        done
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if ! can_be_root; then
        echo "these packages are missing and installing them needs root: ${missing[*]}" >&2
        return 1
    fi
    echo "installing ${missing[*]} (a minute or two)"
    "install_on_$family" "${missing[@]}"
}

configure() { # CONFIGURE-PRESET OPTION...
    quietly "configure-$1" cmake --preset "$@"
}

# Estimates the time from the number of steps that Ninja has to do.
build() { # BUILD-PRESET OPTION-OF-NINJA...
    local steps seconds_per_step=3
    steps=$(cmake --build --preset "$1" -- -n | sed -n '$s/^\[[0-9]*\/\([0-9]*\)\].*/\1/p')
    [ -n "$steps" ] || return 0
    [ "$1" != tidy ] || seconds_per_step=10
    echo "building ($1): $steps steps, about $((steps * seconds_per_step / $(nproc) / 10 + 1))0 s"
    quietly "build-$1" cmake --build --preset "$1" -- "${@:2}"
}
