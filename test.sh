#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
#
#   ./test.sh [OPTION...]
#
#   --sanitizers   once more under the address, undefined and thread sanitizers
#   --real         then the real initiator against a real target, in a virtual machine
#   --fleet        then the playbooks of cli/fleet/ over three simulated machines
#   --packages     then the packages, built, installed, tried and removed
#   --lint         then shellcheck over all scripts, clang-tidy over what is shipped
#
# The last line is "N passed, N failed". If this machine cannot run something, ", N skipped" follows, and the reasons
# are above it. Exit status: 0 nothing failed, 1 something did, 2 wrong usage.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"
# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh

packages=(build tests)
presets=(release)
real=no
fleet=no
packages_too=no
lint=no
for option in "$@"; do
    case $option in
    --sanitizers)
        packages+=(sanitizers)
        presets+=(asan tsan)
        ;;
    --real) real=yes ;;
    --fleet) fleet=yes ;;
    --packages) packages_too=yes ;;
    --lint) lint=yes ;;
    *) help_or_refuse "$option" ;;
    esac
done
take_clone

passed=0
failed=0
skipped=0

# What the failed tests printed, and their names.
show_failures() { # LOG
    sed -n '/\*\*\*[FTE]/,/^ *[0-9]*\/[0-9]* Test/p' "$1" | cut -c 1-200 >"$1.failures"
    head -n 200 "$1.failures"
    sed -n '/The following tests FAILED/,$p' "$1"
}

# CTest's closing lines: "98% tests passed, 1 tests failed out of 61", and a list of what did not run.
run_tests() { # PRESET
    local log="$log_directory/test-$1.log" total bad not_run
    echo "testing ($1)"
    counted "test-$1" env -C "build/$1" ctest --output-on-failure -j "$(nproc)" || show_failures "$log" >&2
    total=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1/p' "$log")
    bad=$(sed -n 's/.* tests passed, \([0-9]*\) tests failed out of .*/\1/p' "$log")
    if [ -z "$total" ] || [ "$total" -eq 0 ]; then
        tail -n 20 "$log" >&2
        echo "the tests of the preset $1 did not run" >&2
        total=1 bad=1
    fi
    not_run=$(grep -c '\*\*\*Skipped' "$log" || true)
    # A skipped test prints "FILE:LINE: Skipped" and, on the next line, its reason.
    grep -h -A1 ': Skipped$' "build/$1/Testing/Temporary/LastTest.log" |
        sed '/: Skipped$/d; /^--$/d; s/^/skipped: /' | sort | uniq -c || true
    passed=$((passed + total - bad - not_run))
    failed=$((failed + bad))
    skipped=$((skipped + not_run))
}

# Runs and counts a check outside CTest.
check() { # COMMAND...: exit status 77 if this machine cannot run it
    local status=0
    "$@" </dev/null || status=$?
    case $status in
    0) passed=$((passed + 1)) ;;
    77) skipped=$((skipped + 1)) ;;
    *) failed=$((failed + 1)) ;;
    esac
}

lint_scripts() {
    local scripts
    command -v shellcheck >/dev/null || {
        echo "skipped: there is no shellcheck here"
        return 77
    }
    echo "checking all scripts (shellcheck)"
    mapfile -t scripts < <(find . \( -path ./build -o -path ./.cache -o -path ./.git \) -prune -o -type f \
        -exec grep -lE '^(#!.*sh$|# shellcheck shell=)' {} +)
    shellcheck -x "${scripts[@]}"
}

# CMake runs clang-tidy with the compiler: unchanged files that passed are not checked again, unless the list of
# checks has changed. Newer versions have checks that the list does not know, and report other projects' headers.
lint_sources() {
    [[ $(clang-tidy --version 2>&1) == *"version 14."* ]] || {
        echo "skipped: there is no clang-tidy 14 here, whose findings the code answers"
        return 77
    }
    [ build/tidy/CMakeCache.txt -nt .clang-tidy ] || rm -rf build/tidy
    configure tidy || return
    build tidy -k 0 2>"$log_directory/lint" && return
    grep -E ': (warning|error): ' "$log_directory/build-tidy.log" | sort -u || cat "$log_directory/lint"
    return 1
}

install_missing "${packages[@]}"
install_optional "the manual is not built or not checked" manual
for preset in "${presets[@]}"; do
    configure "$preset" -DBUILD_TESTING=ON
    build "$preset"
    run_tests "$preset"
done
[ "$real" = no ] || check tests/real/run
if [ "$fleet" = yes ]; then
    install_optional "the playbooks are not tried" fleet
    check tests/fleet
fi
[ "$packages_too" = no ] || check ./package.sh
if [ "$lint" = yes ]; then
    install_optional "not all is checked" lint
    check lint_scripts
    check lint_sources
fi

summary="$passed passed, $failed failed"
[ "$skipped" -eq 0 ] || summary="$summary, $skipped skipped"
echo "$summary"
[ "$failed" -eq 0 ]
