# shellcheck shell=bash
# What demo.sh and test.sh have in common: find what this machine lacks, install it, build.
# To be sourced from the clone's root by a bash with `set -euo pipefail`.

log_folder=build/log
mkdir -p "$log_folder"

# Runs a command quietly; what it printed is shown when it fails.
quietly() { # NAME COMMAND...
    local log="$log_folder/$1.log"
    shift
    if ! "$@" >"$log" 2>&1 </dev/null; then
        tail -n 40 "$log" >&2
        echo "failed: $* (all it printed: $log)" >&2
        return 1
    fi
}

missing_debian_packages() {
    local package
    for package in g++ cmake ninja-build libboost-dev libcli11-dev nlohmann-json3-dev \
        libgtest-dev libgmock-dev libbenchmark-dev; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || echo "$package"
    done
}

missing_redhat_packages() {
    local package
    for package in gcc-c++ cmake ninja-build boost-devel cli11-devel json-devel gtest-devel gmock-devel \
        google-benchmark-devel libasan libubsan libtsan; do
        rpm -q --quiet "$package" || echo "$package"
    done
}

install_debian_packages() {
    quietly apt-update as_root apt-get update
    quietly apt-install as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# Ninja, the test tools and the header libraries stand in CRB and EPEL, which not every member of the family
# calls by these names; some need neither.
install_redhat_packages() {
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

# Installs what the build lacks; without the rights it names the packages and ends.
install_missing() {
    local family missing
    if command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; then
        family=debian
    elif command -v dnf >/dev/null; then
        family=redhat
    else
        echo "this machine has neither apt nor dnf: install a C++17 compiler, CMake 3.20, Ninja, Boost," \
            "CLI11, nlohmann-json, GoogleTest and Google Benchmark by hand" >&2
        return 0
    fi
    missing=$("missing_${family}_packages")
    [ -n "$missing" ] || return 0
    # shellcheck disable=SC2086 # one word a package
    set -- $missing
    if ! can_be_root; then
        echo "these packages are missing and installing them needs root: $*" >&2
        return 1
    fi
    echo "installing $*"
    "install_${family}_packages" "$@"
}

build() { # PRESET
    echo "building ($1)"
    quietly "configure-$1" cmake --preset "$1"
    quietly "build-$1" cmake --build --preset "$1"
}
