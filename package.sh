#!/usr/bin/env bash
# Makes the RPM and DEB packages in build/packages and tests them: two builds give the same bytes; installed into an
# empty root the agent works, and hosts can be built and run; an update keeps the settings; removal leaves nothing;
# lintian and rpmlint report nothing that packaging/ does not answer.
#
# Exit status: 0 passed, 1 failed, 77 this machine cannot do it (the reason is printed).
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"
umask 022 # CPack copies it into the modes of a DEB's files
export PATH=$PATH:/usr/sbin:/sbin LC_ALL=C

# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh
help_or_refuse "$@"
take_clone

command -v apt-get >/dev/null || {
    echo "skipped: the tools for both kinds of package are Debian's, and this machine has no apt"
    exit 77
}
install_missing build manual packages || {
    echo "skipped: not all that makes and proves the packages is here"
    exit 77
}
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH-$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CMakeLists.txt)}
export SOURCE_DATE_EPOCH

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
packages=build/packages

fail() { # SENTENCE
    echo "*** $1" >&2
    exit 1
}

# Both kinds use one build folder: they differ in the folder of the libraries only, so only the agent is linked again.
make_packages() { # FOLDER OPTION...
    local kind libraries
    rm -f build/package/*.deb build/package/*.rpm
    mkdir -p "$1" build/log
    for kind in DEB RPM; do
        libraries=lib64
        [ $kind = RPM ] || libraries=lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
        configure package -DCMAKE_INSTALL_LIBDIR="$libraries" "${@:2}"
        build package
        quietly "cpack-$kind" env -C build/package cpack -G $kind
    done
    mv build/package/*.deb build/package/*.rpm "$1"
}

rm -rf $packages build/package
make_packages "$PWD/$packages" -DZN_SIMULATED=ON
echo "the same from another folder"
mkdir "$work/again"
tar -c --exclude=./build --exclude=./.cache --exclude=./.git . | tar -x -C "$work/again"
(cd "$work/again" && make_packages "$work/packages" -DZN_SIMULATED=OFF)
diff -r "$packages" "$work/packages" || fail "two builds differ"

echo "lintian and rpmlint"
lintian --allow-root --display-info --pedantic --fail-on error,warning,info,pedantic \
    --suppress-tags-from-file packaging/lintian-answers $packages/*.deb || fail "lintian has more to say"
rpmlint --strict --config packaging/rpmlint.toml $packages/*.rpm >"$work/rpmlint" || {
    cat "$work/rpmlint"
    fail "rpmlint has more to say"
}

# An ordinary user becomes root in a user namespace.
as_package_manager() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else unshare -r "$@"; fi
}
in_dpkg() { as_package_manager dpkg --root="$root" --force-depends --log=/dev/null "$@"; }
in_rpm() { as_package_manager rpm --root "$root" --dbpath /var/lib/rpm --nodeps "$@"; }
install_DEB() { in_dpkg -i $packages/*.deb; }
install_RPM() { in_rpm -U --replacepkgs $packages/*.rpm; }
remove_DEB() { in_dpkg -P zniscsi libzniscsi{,-host,-dev}; }
remove_RPM() { in_rpm -e zniscsi libzniscsi{,-host,-devel}; }

in_machine() { simulated/machine --tools build/package/bin/simulated --state "$work/state" "$@"; }

agent_says() { # PATTERN ARGUMENT...
    local said
    said=$(in_machine env -u ZN_REGISTRY "$root/usr/bin/zniscsi" "${@:2}" 2>&1) || true
    grep -qE "$1" <<<"$said" || fail "zniscsi ${*:2} does not say $1: $said"
}

# Prints the code block of a document that contains a text.
shown() { # FILE TEXT
    awk -v text="$2" '/^```/ { if (inside && index(block, text)) { printf "%s", block; exit }
        inside = !inside; block = ""; next } { block = block $0 "\n" }' "$1"
}

# Builds every host in the documents, with the commands in the documents.
try_hosts() { # COMPILER STANDARD
    local compiler=$1 flags=(-std=c++"$2" -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Werror) host
    g++() { command "$compiler" "${flags[@]}" "$@"; }
    pkg-config() { command pkg-config --define-variable=prefix="$root/usr" "$@"; }
    rm -rf "$hosts" && mkdir "$hosts"
    shown README.md dlopen >"$hosts/readme_host.cpp"
    sed 's/(LoadInstance())/(GetInstance())/' "$hosts/readme_host.cpp" >"$hosts/linked_host.cpp"
    for host in libZnLib libZNSnapHandler libZnDeviceTree libHxUtils own_host; do
        shown docs/hosts.md "// $host" >"$hosts/$host.cpp"
    done
    (
        loading=$(shown README.md 'pkg-config --cflags')
        own=$(shown docs/hosts.md 'mkdir -p own')
        cd "$hosts"
        eval "$loading"
        eval "${loading//readme_host/linked_host}"
        eval "$own"
    )
    run_hosts "$1 as C++$2"
}

try_hosts_with_cmake() {
    {
        echo "cmake_minimum_required(VERSION 3.20)"
        echo "project(hosts CXX)"
        echo "set_property(GLOBAL PROPERTY FIND_LIBRARY_USE_LIB64_PATHS ON)" # the default where RPMs are installed
        echo "add_executable(readme_host readme_host.cpp)"
        echo "add_executable(linked_host linked_host.cpp)"
        shown README.md 'find_package(zniscsi'
    } >"$hosts/CMakeLists.txt"
    quietly hosts-configure cmake -S "$hosts" -B "$hosts" -DCMAKE_PREFIX_PATH="$root/usr"
    quietly hosts-build cmake --build "$hosts" --clean-first
    run_hosts CMake
}

run_hosts() { # BUILT-BY
    local host disks
    for host in readme_host linked_host; do
        disks=$(in_machine "$hosts/$host" iqn.2025-01.org.example:plain) || true
        [[ $disks == /dev/sd?$'\n'/dev/sd? ]] || fail "$host, built by $1, does not find two disks: $disks"
    done
    in_machine "$hosts/own_host" "${disks%$'\n'*}" 2>/dev/null | grep -q '^192.0.2.10 ' ||
        fail "own_host, built by $1, does not find the target"
}

own_host_says() { # WORDS
    [[ $("$hosts/own_host" /dev/sda 2>&1) == *"$1"* ]] || fail "a host whose libHxUtils.so is wrong is not told: $1"
}

root=$work/root
hosts=$work/hosts
in_machine true || {
    echo "skipped: the packages are in $packages, but there is no simulated machine here to prove them in"
    exit 77
}
for kind in DEB RPM; do
    echo "installing, running and removing ($kind)"
    mkdir -p "$root"/var/lib/dpkg/{info,updates}
    touch "$root/var/lib/dpkg/status"
    quietly install-$kind install_$kind
    PKG_CONFIG_PATH=$(dirname "$(find "$root" -name zniscsi.pc)")
    export PKG_CONFIG_PATH

    while read -r file; do
        readelf -n "$file" | grep -q 'Build ID' || fail "$file has no build-id"
        [[ $file != *.so ]] || ! readelf -d "$file" | grep PATH || fail "$file has a search path of its own"
    done < <(find "$root" -name '*.so' -o -path '*/bin/*' -type f)

    agent_says 'Red Hat family Linux, release 9' doctor
    agent_says '^iqn.2025-01.org.example:plain$' discover 192.0.2.10
    agent_says '^logged on$' logon 192.0.2.10 iqn.2025-01.org.example:plain
    agent_says '^/dev/sd' disks iqn.2025-01.org.example:plain
    for compiler in g++ clang++; do
        for standard in 11 14 17 20; do
            [ "$kind $standard" = "DEB $standard" ] || [ $standard = 17 ] || continue # the headers are the same in both
            try_hosts $compiler $standard
        done
    done
    try_hosts_with_cmake
    cp "$hosts/own/libZNSnapHandler.so" "$hosts/own/libHxUtils.so"
    own_host_says 'undefined symbol: '
    rm "$hosts/own/libHxUtils.so"
    own_host_says 'libHxUtils.so: cannot open shared object file: No such file or directory'
    agent_says '^logged off$' logoff 192.0.2.10 iqn.2025-01.org.example:plain

    settings=$root/etc/zniscsi/registry.ini
    cp "$settings" "$work/settings"
    echo '; mine' >>"$settings"
    quietly update-$kind install_$kind
    grep -q '^; mine' "$settings" || fail "an update does not keep the settings"
    cp "$work/settings" "$settings"
    quietly remove-$kind remove_$kind
    left=$(find "$root" -path "$root/var/lib" -prune -o \( ! -type d -o -path '*zniscsi*' \) -print)
    [ -z "$left" ] || fail "left after removal: $left"
    rm -rf "$root"
done
ls $packages/*
