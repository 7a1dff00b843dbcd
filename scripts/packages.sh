# shellcheck shell=bash
# Installs the packages that are missing, with apt or dnf. scripts/prepare.sh reads this file.

debian_packages() { # GROUP
    case $1 in
    build) echo g++ cmake ninja-build libboost-dev libcli11-dev nlohmann-json3-dev ;;
    tests) echo libgtest-dev libgmock-dev ;;
    manual) echo scdoc groff-base ;;
    fleet) echo ansible-core ;;
    lint) echo shellcheck clang-tidy ;;
    bench) echo gnuplot-nox strace ;;
    packages) echo build-essential clang debhelper dpkg-dev elfutils file lintian pkg-config rpm rpmlint ;;
    esac
}

redhat_packages() { # GROUP
    case $1 in
    build) echo gcc-c++ cmake ninja-build boost-devel cli11-devel json-devel ;;
    tests) echo gtest-devel gmock-devel util-linux ;;
    sanitizers) echo libasan libubsan libtsan ;;
    manual) echo scdoc groff-base ;;
    fleet) echo ansible-core ;;
    bench) echo gnuplot strace ;;
    lint) echo ShellCheck clang-tools-extra ;;
    esac
}

is_on_debian() { dpkg-query -W -f '${Status}' "$1" 2>/dev/null | grep -q 'ok installed'; }

is_on_redhat() { rpm -q --quiet "$1"; }

# Sets `family`, and `missing` to the packages of the groups that are not installed.
find_missing() { # GROUP...
    local group package
    family='' missing=()
    if command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; then
        family=debian
    elif command -v dnf >/dev/null; then
        family=redhat
    else
        echo "note: this machine has neither apt nor dnf. The build needs a C++17 compiler, CMake 3.18, Ninja, Boost," \
            "CLI11 and nlohmann-json, the tests need GoogleTest" >&2
        return
    fi
    for group in "$@"; do
        for package in $("${family}_packages" "$group"); do
            "is_on_$family" "$package" || missing+=("$package")
        done
    done
}

can_be_root() { [ "$(id -u)" -eq 0 ] || sudo -n true 2>/dev/null; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo -n "$@"; fi
}

# The shell line that installs the missing packages.
install_line() {
    case $family in
    debian)
        echo "apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends ${missing[*]}"
        ;;
    redhat) echo "dnf install -y ${missing[*]}" ;;
    esac
}

# Some members of the Red Hat family have other names for these repositories: dnf then says what it cannot find.
install_packages() {
    local command=(quietly install-packages as_root sh -c "$(install_line)")
    echo "installing ${missing[*]} (a minute or two)"
    if [ "$family" = redhat ]; then
        "${command[@]}" 2>/dev/null && return
        echo "the enabled repositories do not have them all: enabling EPEL (with the package epel-release) and CRB"
        quietly repositories as_root sh -c \
            'dnf install -y dnf-plugins-core epel-release; dnf config-manager --set-enabled crb' 2>/dev/null || true
    fi
    "${command[@]}"
}

# What to type in place of install_packages().
show_install_line() {
    local root='su -c'
    ! command -v sudo >/dev/null || root='sudo sh -c'
    echo "    $root '$(install_line)'"
    [ "$family" = debian ] || echo "    (some may be in the repositories EPEL and CRB)"
}

# Without the rights to install, says what to type and fails.
install_missing() { # GROUP...
    find_missing "$@"
    [ ${#missing[@]} -gt 0 ] || return 0
    if can_be_root; then
        install_packages
        return
    fi
    echo "packages are missing, and root has to install them. Type this, then start $0 again:" >&2
    show_install_line >&2
    return 1
}

# Goes on without the packages if it has to.
install_optional() { # WHAT-IS-LEFT-OUT GROUP...
    find_missing "${@:2}"
    [ ${#missing[@]} -gt 0 ] || return 0
    ! can_be_root || ! install_packages 2>/dev/null || return 0
    echo "$1, for lack of ${missing[*]}; all else goes on. To add what is missing, type:"
    show_install_line
}
