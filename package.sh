#!/usr/bin/env bash
# Makes a source archive in build/packages, and the RPM and DEB packages from it, as a distribution does, with
# packaging/zniscsi.spec and packaging/debian/. Tests them: two builds give the same bytes; installed into an empty root
# `zniscsi` works, and hosts can be built and run; every file has its debug information; an update keeps the settings;
# removal leaves nothing; lintian and rpmlint report nothing that packaging/ does not answer.
#
# Exit status: 0 passed, 1 failed, 77 this machine cannot do it (the reason is printed).
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"
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
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
packages=build/packages

fail() { # SENTENCE
    echo "*** $1" >&2
    exit 1
}

# What git knows of this clone, with changes not yet committed; without git, all that is here.
make_archive() {
    local state
    if [ -e .git ] && state=$(git stash create 2>/dev/null); then
        git archive --prefix="$source/" -o "$archive" "${state:-HEAD}"
    else
        tar -czf "$archive" --transform="s,^\.,$source," --exclude=./build --exclude=./.cache --exclude=./.git .
    fi
}

make_RPM() { # DIRECTORY
    rpmbuild -tb --nodeps --load=packaging/rpm-macros --define="_topdir $1" "$archive"
    mv "$1"/RPMS/*/*.rpm "$1"
}

make_DEB() { # DIRECTORY
    tar -xf "$archive" -C "$1"
    cp -r "$1/$source/packaging/debian" "$1/$source"
    (cd "$1/$source" && dpkg-buildpackage -us -uc -b)
}

echo "making the packages, twice, in different directories"
version=$(sed -n 's/^project(zniscsi VERSION \([^ ]*\).*/\1/p' CMakeLists.txt)
source=zniscsi-$version
archive=$packages/$source.tar.gz
rm -rf $packages
mkdir -p $packages
make_archive
for directory in one another-one; do
    mkdir -p "$work/$directory"/{DEB,RPM,made}
    for kind in DEB RPM; do
        quietly "make-$kind" make_$kind "$work/$directory/$kind"
        mv "$work/$directory/$kind"/*."${kind,,}" "$work/$directory/made"
        rm -rf "${work:?}/$directory/$kind"
    done
done
diff -r "$work/one/made" "$work/another-one/made" || fail "two builds differ"
mv "$work/one/made"/* $packages

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
# The root has no shell: the packages' scripts run outside it.
in_dpkg() { as_package_manager dpkg --root="$root" --force-depends,script-chrootless --log=/dev/null "$@"; }
in_rpm() { as_package_manager rpm --root "$root" --dbpath /var/lib/rpm "$@"; }
install_DEB() { in_dpkg -i $packages/*.deb; }
install_RPM() { in_rpm -U --nodeps --replacepkgs $packages/*.rpm; }
remove_DEB() {
    local installed
    mapfile -t installed < <(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${Package}\n')
    in_dpkg -P "${installed[@]}"
}
remove_RPM() {
    local installed
    mapfile -t installed < <(in_rpm -qa)
    in_rpm -e --nodeps "${installed[@]}"
}

in_machine() { simulated/machine --state "$work/state" "$@"; }

zniscsi_says() { # PATTERN ARGUMENT...
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
        echo "install(TARGETS readme_host linked_host DESTINATION bin)"
    } >"$hosts/CMakeLists.txt"
    quietly hosts-configure cmake -S "$hosts" -B "$hosts" -DCMAKE_PREFIX_PATH="$root/usr"
    quietly hosts-build cmake --build "$hosts" --clean-first
    run_hosts CMake
    quietly hosts-install cmake --install "$hosts" --prefix "$hosts/installed"
    mv "$hosts"/installed/bin/* "$hosts"
    run_hosts "CMake and installed"
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

build_demo # the simulated machine
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
        id=$(readelf -n "$file" | sed -n 's/.*Build ID: //p')
        [ -e "$root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" ] || fail "no debug package belongs to $file"
        [[ $file != *.so ]] || ! readelf -d "$file" | grep PATH || fail "$file has a search path of its own"
    done < <(find "$root"/usr/{bin,lib*/*} -name debug -prune -o -type f \( -name '*.so' -o -path '*/bin/*' \) -print)
    oldest=$(tests/oldest-libraries "$root")

    zniscsi_says 'Red Hat family Linux, release 9' doctor
    zniscsi_says '^iqn.2025-01.org.example:plain$' discover 192.0.2.10
    zniscsi_says '^logged on$' logon 192.0.2.10 iqn.2025-01.org.example:plain
    zniscsi_says '^/dev/sd' disks iqn.2025-01.org.example:plain
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
    zniscsi_says '^logged off$' logoff 192.0.2.10 iqn.2025-01.org.example:plain

    settings=$root/etc/zniscsi/registry.ini
    cp "$settings" "$work/settings"
    echo '; mine' >>"$settings"
    quietly update-$kind install_$kind
    grep -q '^; mine' "$settings" || fail "an update does not keep the settings"
    cp "$work/settings" "$settings"
    mkdir -p "$root"/var/log "$root"/run/zniscsi
    touch "$root"/var/log/zniscsi.log{,.1}
    quietly remove-$kind remove_$kind
    left=$(find "$root" -path "$root/var/lib" -prune -o \( ! -type d -o -path '*zniscsi*' \) -print)
    [ -z "$left" ] || fail "left after removal: $left"
    rm -rf "$root"
done
ls $packages/*
cat <<END
Proved of both kinds: two builds give the same bytes; installed, used, updated and removed they do what they should;
hosts are built with them, by hand and by CMake, and run. They need ${oldest/ / and } or later.
END
