#!/usr/bin/env bash
# Installs what is missing, builds, and measures what must stay cheap: each against something that does the same work,
# in turn with it, so that other load on the machine affects both. Prints a table, and draws the times of a look-up
# over the number of sessions in build/bench/run/look-up.svg.
#
#   ./bench.sh    takes a minute after the build
#
# Exit status: 0 no figure exceeds its limit, 1 one does, 2 wrong usage.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"
# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh
help_or_refuse "$@"
take_clone
install_missing build bench
configure bench
build bench

run=$PWD/build/bench/run
rm -rf "$run" && mkdir "$run"
unset ZN_LOG_MAX_SIZE
export programs=$PWD/build/bench/bin ZN_REGISTRY=$run/none ZN_LOG_FILE=$run/log

# A machine for Bench, in the current directory: two sessions lead to each target, and its five LUNs are the paths of
# five mounted maps.
make_machine() { # DISKS
    local machine=$PWD/$1
    mkdir -p "$machine/proc/self/ns"
    ln -s "$programs/zniscsi" "$machine/proc/self/exe"
    ln -s 'mnt:[1]' "$machine/proc/self/ns/mnt"
    awk -v targets=$(($1 / 10)) -v scene="$machine/scene.json" -v state="$machine/state.json" \
        -v mounts="$machine/proc/self/mountinfo" '
    function iqn(target) { return "\"iqn.2025-01.org.example:volume-" target "\"" }
    BEGIN {
        printf "{\"targets\":[" >scene
        printf "{\"lastSid\":0, \"nodes\":[], \"faultRuns\":[], \"sessions\":[" >state
        for (sid = 0; sid < 2 * targets; ++sid)
            printf "%s{\"sid\":%d,\"iqn\":%s,\"portal\":\"192.0.2.10\",\"looks\":0,\"mpioLooks\":0,\"disks\":[]}",
                sid ? "," : "", sid, iqn(int(sid / 2)) >state
        for (target = 0; target < targets; ++target)
            printf "%s{\"iqn\":%s,\"luns\":[{\"lun\":0},{\"lun\":1},{\"lun\":2},{\"lun\":3},{\"lun\":4}]}",
                target ? "," : "", iqn(target) >scene
        printf "],\"maps\":[" >scene
        for (map = 0; map < 5 * targets; ++map) {
            printf "%s{\"name\":\"map%d\",\"targets\":[%s],\"lun\":%d}", map ? "," : "", map, iqn(int(map / 5)), map % 5 >scene
            printf "36 35 121:%d / /mnt/%d rw - ext4 /dev/mapper/map%d rw\n", map, map, map >mounts
        }
        print "]}" >scene; print "]}" >state
    }'
    SIMULATED_SCENE=$machine/scene.json SIMULATED_STATE=$machine "$programs/simulated/prepare"
}

in_machine() { # SHELL-LINE: in a simulated machine, whose /run is its own
    simulated/machine --state "$run/state" --tools "$programs/simulated" bash -c "$1"
}

# The system calls of 100 runs, with those of each child before it executes the tool.
count_calls() { # run-ours|run-others
    local times
    for times in 1 101; do
        strace -f -qq -b execve -e signal=none -o "$run/calls-$times" "$programs/Bench" "$1" "$times"
    done
    echo $(($(grep -c ' = ' "$run/calls-101") - $(grep -c ' = ' "$run/calls-1")))
}

# Rows of title, limit, ours and the other's, under headings: "# A run of a tool".
# shellcheck disable=SC2016 # shell lines
measure() {
    local look_up='cd /run && mount --bind "$programs/PrintFile" /usr/sbin/iscsiadm && exec "$programs/Bench" look-ups'
    export ZN_LOG_LEVEL=-1
    "$programs/Bench" runs
    printf 'system calls of 100 runs\t1.05x\t%d\t%d\n' "$(count_calls run-ours)" "$(count_calls run-others)"
    "$programs/Bench" parser
    (cd "$run" && ZN_LOG_LEVEL=0 "$programs/Bench" log)
    { ZN_LOG_LEVEL=0 in_machine "$look_up" && in_machine "$look_up"; } | tee "$run/look-ups"
    in_machine "$(declare -f make_machine)"'
        cd /run && for n in 10 100 1000 10000; do make_machine $n; done && exec "$programs/Bench" machines'
}

# "x" limits the ratio, a number without it limits ours alone. Status 1 if a row exceeds its limit.
print_table() {
    awk -F '\t' '
    function shown(figure) {
        if (figure == int(figure))
            return sprintf("%d   ", figure)
        return figure < 1e-3 ? sprintf("%.3g us", 1e6 * figure) : sprintf("%.4g ms", 1e3 * figure)
    }
    BEGIN { printf "%-46s %10s %10s %8s %8s\n", "", "ours", "other", "ratio", "at most" }
    sub(/^# /, "") { print "\n" $0 }
    NF == 4 {
        isRatio = $2 ~ /x$/
        value = isRatio ? $3 / $4 : $3
        isAbove = value > $2 + 0
        printf "  %-44s %10s %10s %8s %8s%s\n", $1, shown($3), shown($4), isRatio ? sprintf("%.3g", value) : "", $2,
            isAbove ? "  ABOVE" : ""
        above += isAbove; ++rows
    }
    END { printf "\n%d of %d figures within their limits\n", rows - above, rows; exit above > 0 }'
}

echo "measuring: about a minute"
measure >"$run/rows"
(cd "$run" && gnuplot ../../../bench/look-up.gnuplot)
print_table <"$run/rows"
