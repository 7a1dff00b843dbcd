#!/usr/bin/env bash
# Installs what is missing, builds, and shows the whole of it on a simulated machine: each step with the
# command that a person would type, its answer and, where it is meant to fail, the reason.
#
# Needs no root and leaves nothing outside the clone. Exit status 0 only if every step did what it should.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"

# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh
install_missing build
# Tests take more packages; a folder that test.sh has set up keeps them.
without_tests=()
[ -e build/release/build.ninja ] || without_tests=(-DZN_TESTS=OFF)
configure release "${without_tests[@]}"
build demo

# Nothing of the user's own settings is touched.
unset ZN_REGISTRY ZN_LOG_FILE ZN_LOG_LEVEL ZN_LOG_MAX_SIZE
state=$PWD/build/demo/state
registry=$state/registry.ini
rm -rf build/demo
mkdir -p "$state"
cp standalone/registry.ini.example "$registry"
simulated/machine --state "$state" true || {
    echo "the simulated machine cannot be entered here; there is nothing to show without it" >&2
    exit 1
}
printf 'secret-of-somebody-else\n' >build/demo/wrong-secret
printf 'secret-12345-ok\n' >build/demo/right-secret
chmod 600 build/demo/*-secret

steps=0
good=0
shown=

# step TITLE STATUS PATTERN COMMAND...: runs the command in the simulated machine. It did what it should if
# it ended with STATUS and PATTERN, an extended regular expression, matches what it printed. Where `shown` is
# set, the lines that it matches stand for all that such a step printed.
step() {
    local title=$1 expected=$2 pattern=$3 status=0
    shift 3
    steps=$((steps + 1))
    printf '\n%d. %s\n$ %s\n' "$steps" "$title" "$*"
    output=$(simulated/machine --scene "$scene" --state "$state" "$@" 2>&1) || status=$?
    if [ "$status" -eq "$expected" ] && printf '%s\n' "$output" | tr '\n' ' ' | grep -Eq -- "$pattern"; then
        good=$((good + 1))
        printf '%s' "${output:+$output$'\n'}" | grep -E -- "$shown" || true
        [ -z "$shown" ] || echo "($(printf '%s\n' "$output" | grep -Evc -- "$shown") more lines of log are left out here)"
        [ "$expected" -eq 0 ] || echo "(refused as it should be: exit status $status)"
    else
        printf '%s\n' "$output"
        echo "*** not as it should be: exit status $status, $expected expected; looked for: $pattern"
    fi
}

# setting KEY VALUE: what a person would edit in the registry's section [~iStoreNode].
setting() {
    printf '\n(registry: %s = %s)\n' "$1" "$2"
    sed -i "/^[;# ]*$1 *=/d; s/^\[~iStoreNode\]/&\n$1 = $2/" "$registry"
}

iqn=iqn.2025-01.org.example
usual=simulated/scenes/demo.json
scene=$usual
# The same machine with a multipath tool of other words, and without one.
report="Name = volume\\\\nTarget = $iqn:volume\\\\nMount = /dev/mapper/eql-volume\\\\n"
sed "s|\"faults\": \[\]|\"faults\": [{ \"command\": \"ehcmcli\", \"output\": \"$report\" }]|" $usual >build/demo/other-words.json
sed 's/"ehcmcliInstalled": true/"ehcmcliInstalled": false/' $usual >build/demo/no-multipath-tool.json

step "Is everything here?" 0 'Red Hat family Linux, release 9' zniscsi doctor
case $output in *iscsid*)
    echo "(the note is as it should be: no daemon runs here, and the simulated tools need none)"
    ;;
esac
step "Discover a portal: its targets" 0 "$iqn:plain" zniscsi discover 192.0.2.10
step "Log on" 0 '^logged on' zniscsi logon 192.0.2.10 $iqn:plain
step "The target's disks, two of them" 0 '^/dev/sd. /dev/sd. $' zniscsi disks $iqn:plain
step "Log on again" 0 '^already logged on' zniscsi logon 192.0.2.10 $iqn:plain
step "CHAP with a wrong secret" 1 'authorization failure' \
    zniscsi logon 192.0.2.10 $iqn:chap --chap-user chapuser --chap-secret-file build/demo/wrong-secret
step "CHAP with the right one" 0 '^logged on' \
    zniscsi logon 192.0.2.10 $iqn:chap --chap-user chapuser --chap-secret-file build/demo/right-secret
step "A portal that nobody answers at" 1 'timed out' zniscsi discover 192.0.2.99
step "A portal that refuses" 1 'Connection refused' zniscsi discover 192.0.2.12
step "All sessions" 0 'SID +STATE +PORTAL +IQN .*:chap' zniscsi sessions
step "The same for a program" 0 '"ok": ?true' zniscsi sessions --json

step "Log on to a target whose disks take their time" 0 '^logged on' zniscsi logon 192.0.2.10 $iqn:slow
step "Wait for its disks" 0 '/dev/sd' zniscsi disks $iqn:slow --wait 20

step "Two paths to one disk: the first" 0 '^logged on' zniscsi logon 192.0.2.10 $iqn:multi
step "A second portal" 0 "$iqn:multi" zniscsi discover 192.0.2.11
step "The second path" 0 '^logged on' zniscsi logon 192.0.2.11 $iqn:multi

step "Which target is behind a disk?" 0 "^192.0.2.10 $iqn:plain" zniscsi target /dev/sdb
step "... behind a partition" 0 "^192.0.2.10 $iqn:plain" zniscsi target /dev/sdb1
step "... behind a symbolic link" 0 "^192.0.2.10 $iqn:plain" \
    zniscsi target "/dev/disk/by-path/ip-192.0.2.10:3260-iscsi-$iqn:plain-lun-1"
step "... behind a multipath device with two paths" 0 "^192.0.2.10 $iqn:multi" zniscsi target /dev/mapper/mpatha
step "... behind a logical volume on top of it" 0 "^192.0.2.10 $iqn:multi" zniscsi target /dev/mapper/vg-data

step "A multipath device whose paths lead to two targets: the one" 0 '^logged on' \
    zniscsi logon 192.0.2.10 $iqn:left
step "... the other" 0 '^logged on' zniscsi logon 192.0.2.10 $iqn:right
step "... is refused" 1 'should match' zniscsi target /dev/mapper/mpathb
step "A device that is no iSCSI disk" 1 'no session presents it' zniscsi target /dev/nvme0n1
step "A device that is not there" 1 'there is no block device' zniscsi target /dev/sdz
step "A name that is no device path" 2 '/dev/' zniscsi target sdb

step "A volume that the multipath tool reports at its third look" 0 '^logged on' \
    zniscsi logon 192.0.2.10 $iqn:volume
step "Its multipath device" 0 '^/dev/mapper/eql-volume' zniscsi disk $iqn:volume --retry-pause 1
shown='Running|^/dev/'
setting nRetryCounter 2
step "A target that the multipath tool does not know: two looks, then its disk" 0 \
    '(Running \[/usr/sbin/ehcmcli status\].*){2}/dev/sd' zniscsi -v disk $iqn:plain --retry-pause 1
setting nRetryCounter 1
step "With the registry changed: one look" 0 'Running \[/usr/sbin/ehcmcli status\].*/dev/sd' \
    zniscsi -v disk $iqn:plain --retry-pause 1
shown=
scene=build/demo/other-words.json
step "A multipath tool that words its report differently is not understood: a disk, and the map that it is in" 0 \
    '"device":"/dev/mapper/eql-volume","path":"/dev/sd' zniscsi disk $iqn:volume --json
setting VolumeKey '"Name = "'
setting TargetIQNKey '"Target = "'
setting MPIODeviceKey '"Mount = "'
step "With its words in the registry it is" 0 '"device":"/dev/mapper/eql-volume","path":null' \
    zniscsi disk $iqn:volume --json
scene=build/demo/no-multipath-tool.json
step "Where the multipath tool is absent, the first disk at once" 0 '^/dev/sd' zniscsi disk $iqn:plain
scene=$usual

step "Log off" 0 '^logged off' zniscsi logoff 192.0.2.10 $iqn:plain
step "Log off again" 0 '^already logged off' zniscsi logoff 192.0.2.10 $iqn:plain
step "Forget a record that is in use" 1 'a session is using it' zniscsi forget 192.0.2.10 $iqn:chap
step "Forget the record of the target that was logged off" 0 '^forgotten' zniscsi forget 192.0.2.10 $iqn:plain
step "The disks of a target that has no session" 1 'log on first' zniscsi disks $iqn:plain

if ! [ -s "$state/zniscsi.log" ] || grep -q 'secret-12345-ok\|secret-of-somebody-else' "$state/zniscsi.log"; then
    echo "*** there is no log, or a secret stands in it"
    steps=$((steps + 1))
fi
printf '\n%d of %d steps did what they should. The log of it all: %s\n' "$good" "$steps" "build/demo/state/zniscsi.log"
[ "$good" -eq "$steps" ]
