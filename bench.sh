#!/usr/bin/env bash
# Installs what is missing, builds, and measures what must stay cheap: each against something that does the same work,
# in turn with it, so that other load on the machine affects both. Prints one table, and draws the times of a look-up
# over the number of sessions in build/bench/look-up.svg.
#
# Takes a minute after the build. Exit status 0 only if no figure exceeds its limit.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"

# The limits: the key of a row, its maximum, and its title. "x" limits the ratio of ours to the other, a number without it
# limits ours alone.
limits() {
    cat <<'END'
== A run of /bin/true, against posix_spawn with the same duties
run/10-MiB          1.05x  in a host of 10 MiB
run/2-GiB           1.05x  in a host of 2 GiB
run/forked          1.05x  in a host that forks, right after a fork
run/calls           1.05x  system calls
run/faults          1      page faults
run/faults/forked   8      page faults right after a fork
run/faults/cold     8      page faults with a cold heap
== The parser on a report of 1,000 sessions, against one memmem pass over it
parser/read         4x     read
== The parser's time per session, or disk: 16,000 against 1,000
parser/usual        1.5x   sessions with two disks each
parser/no-disks     1.5x   sessions without disks
parser/no-states    1.5x   disks without a state
parser/many-disks   1.5x   one session's disks
== A thousand lines of log, against formatting and writing each to an open file
log/shown           1.5x   shown
log/dropped         0.02x  dropped by their level
== A resident host's look-up of a target's disks, against its tool alone
look-up/0/1         1.5x   1 session, at the usual log level
look-up/0/100       2x     100 sessions: 704 lines of log
look-up/0/1000      6x     1,000 sessions: 7,004 lines of log
look-up/-1/1        1.3x   1 session, errors alone logged
look-up/-1/100      1.3x   100 sessions
look-up/-1/1000     1.6x   1,000 sessions
== The device tree's look-up of a map
device/linked       1.1x   with udev's link: 10,000 disks against 10
device/searched     20x    without: 10,000 disks, against listing them
== The agent
agent/start         5x     zniscsi --version, against /bin/true
== The time per disk of zniscsi sessions
sessions/100        1.2x   100 disks against 10
sessions/1000       1.2x   1,000 against 100
sessions/10000      1.2x   10,000 against 1,000
END
}

# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh
install_missing build
configure bench
build bench

programs=$PWD/build/bench/bin
run=$PWD/build/bench/run
figures=$run/figures # one per line: key, ours, the other's
rm -rf "$run"
mkdir -p "$run"
unset ZN_LOG_MAX_SIZE
export TMPDIR=$run ZN_REGISTRY=$run/none ZN_LOG_FILE=$run/log PRINTED_FILE=$run/report

echo "measuring: about a minute"
for group in runs parser machines; do
    ZN_LOG_LEVEL=-1 "$programs/Bench" "$group" >>"$figures"
done
ZN_LOG_LEVEL=0 "$programs/Bench" log >>"$figures"
# shellcheck disable=SC2016 # the inner shell's own arguments
for level in 0 -1; do
    ZN_LOG_LEVEL=$level simulated/machine --state "$run/state" --tools "$programs/simulated" \
        sh -c 'mount --bind "$1" /usr/sbin/iscsiadm && exec "$2" look-ups' sh "$programs"/{PrintFile,Bench} >>"$figures"
done

# Sessions on the horizontal axis, time on the vertical one, both logarithmic.
draw_look_ups() {
    awk '
    function x(sessions) { return 80 + 150 * log(sessions) / log(10) }
    function y(us) { return 350 - 300 * (log(us) / log(10) - low) / (high - low) }
    function line(name, label, i, points) {
        for (i = 1; i <= n; ++i)
            points = points " " x(sessions[i]) "," y(us[name, i])
        printf "<polyline class=\"%s\" points=\"%s\"/>\n", name, points
        printf "<text x=\"%d\" y=\"%d\">%s</text>\n", x(sessions[n]) + 10, y(us[name, n]) + 5, label
    }
    split($1, part, "/") && part[1] == "look-up" {
        if (part[2] == 0) {
            sessions[++n] = part[3]
            us["shown", n] = 1e6 * $2
        } else {
            us["errors", ++m] = 1e6 * $2
            us["tool", m] = 1e6 * $3
        }
    }
    END {
        low = int(log(us["tool", 1]) / log(10))
        high = int(log(us["shown", n]) / log(10)) + 1
        print "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 720 410\" role=\"img\">"
        print "<title>Time of a look-up over the number of sessions</title>"
        print "<style>"
        print "rect { fill: #fff } line { stroke: #d8dee4 } text { font: 14px sans-serif; fill: #1f2328 }"
        print "polyline { fill: none; stroke-width: 2.5 }"
        print ".shown { stroke: #bc4c00 } .errors { stroke: #0969da } .tool { stroke: #6e7781 }"
        print "@media (prefers-color-scheme: dark) {"
        print "rect { fill: #0d1117 } line { stroke: #30363d } text { fill: #e6edf3 }"
        print ".shown { stroke: #f0883e } .errors { stroke: #58a6ff } .tool { stroke: #8b949e } }"
        print "</style>"
        print "<rect width=\"720\" height=\"410\"/>"
        for (power = low; power <= high; ++power) {
            at = y(10 ^ power)
            label = power < 3 ? 10 ^ power " us" : 10 ^ (power - 3) " ms"
            printf "<line x1=\"80\" y1=\"%d\" x2=\"530\" y2=\"%d\"/>\n", at, at
            printf "<text x=\"70\" y=\"%d\" text-anchor=\"end\">%s</text>\n", at + 5, label
        }
        for (count = 1; count <= 1000; count *= 10)
            printf "<text x=\"%d\" y=\"372\" text-anchor=\"middle\">%d</text>\n", x(count), count
        print "<text x=\"305\" y=\"396\" text-anchor=\"middle\">sessions in the report</text>"
        line("tool", "the tool alone")
        line("errors", "look-up, errors logged")
        line("shown", "look-up, usual log")
        print "</svg>"
    }' "$figures"
}

# Prints the table. Status 1 if a row exceeds its limit or was not measured.
print_table() {
    limits | awk -v figures="$figures" '
    function shown(value, limit) {
        if (limit !~ /x$/ || value == int(value))
            return sprintf("%.4g   ", value)
        return value < 1e-3 ? sprintf("%.3g us", 1e6 * value) : sprintf("%.3g ms", 1e3 * value)
    }
    BEGIN {
        while ((getline line <figures) > 0) {
            split(line, part, " ")
            ours[part[1]] = part[2]
            peers[part[1]] = part[3]
        }
        printf "%-46s %10s %10s %8s %8s\n", "", "ours", "other", "ratio", "at most"
    }
    /^==/ { print "\n" substr($0, 4); next }
    {
        key = $1
        limit = $2
        title = $0
        sub(/^[^ ]+ +[^ ]+ +/, "", title)
        ratio = peers[key] > 0 ? ours[key] / peers[key] : 0
        value = limit ~ /x$/ ? ratio : ours[key]
        verdict = ""
        if (!(key in ours))
            verdict = "  NOT MEASURED"
        else if (value > limit + 0)
            verdict = "  ABOVE"
        ++rows
        bad += verdict != ""
        printf "  %-44s %10s %10s %8s %8s%s\n", title, shown(ours[key], limit), shown(peers[key], limit),
            limit ~ /x$/ ? sprintf("%.3g", ratio) : "", limit, verdict
    }
    END {
        printf "\n%d of %d figures within their limits\n", rows - bad, rows
        exit bad > 0
    }'
}

draw_look_ups >build/bench/look-up.svg
print_table
