#!/usr/bin/env bash
# Installs what is missing, builds, and shows every operation on a simulated machine: the command as a person would
# type it, what it prints and, if it is meant to fail, its exit status.
#
#   ./demo.sh                 leaves nothing outside the clone; root is needed for missing packages only
#   ./demo.sh --built BUILD   runs the programs in the directory BUILD and shows only what goes wrong, as a test
#
# Exit status: 0 every step did what it should, 1 a step did not, 2 wrong usage, 77 no simulated machine works here.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"
# shellcheck source=scripts/prepare.sh
. scripts/prepare.sh

if [ "${1-}" = --built ] && [ $# -eq 2 ]; then
    build=$2
    work=$build/demo
else
    help_or_refuse "$@"
    take_clone
    build=build/release
    work=build/demo
    install_missing build
    build_demo
fi

# The user's own settings play no part.
unset ZN_REGISTRY ZN_LOG_FILE ZN_LOG_LEVEL ZN_LOG_MAX_SIZE
rm -rf "$work"
mkdir -p "$work/state"
registry=$work/state/registry.ini
log=$work/state/zniscsi.log
cp standalone/registry.ini.example "$registry"
exec 3>&1 # for what goes wrong
[ "${1-}" != --built ] || exec >"$work/output"

usual=simulated/scenes/demo.json
scene=$usual
in_machine() {
    simulated/machine --tools "$build/bin/simulated" --scene "$scene" --state "$work/state" "$@"
}
in_machine true || {
    echo "the simulated machine does not work here, and every step needs it" >&2
    exit 77
}
secrets='secret-12345-ok|secret-of-somebody-else'
printf 'secret-of-somebody-else\n' >"$work/wrong-secret"
printf 'secret-12345-ok\n' >"$work/right-secret"
chmod 600 "$work"/*-secret

steps=0
good=0
shown=

# step TITLE STATUS PATTERN COMMAND...: runs the command in the simulated machine. The step is good if the exit status
# is STATUS and PATTERN, an extended regular expression, matches all that is printed, with a blank for each end of
# line. If `shown` is set, only the lines that it matches are compared and shown.
step() {
    local title=$1 expected=$2 pattern=$3 status=0 lines
    shift 3
    steps=$((steps + 1))
    printf '\n%d. %s\n$ %s\n' "$steps" "$title" "$*"
    output=$(in_machine "$@" 2>&1) || status=$?
    lines=$(grep -E -- "$shown" <<<"$output" || true)
    if [ "$status" -eq "$expected" ] && tr '\n' ' ' <<<"$lines" | grep -Eq -- "^$pattern $"; then
        good=$((good + 1))
        echo "$lines"
        [ -z "$shown" ] || echo "($(grep -Evc -- "$shown" <<<"$output") more lines of log are left out here)"
        [ "$expected" -eq 0 ] || echo "(refused as it should be: exit status $status)"
    else
        echo "$output" >&3
        echo "*** not as it should be: step $steps, $title: exit status $status, $expected expected; looked for: $pattern" >&3
    fi
}

# setting KEY VALUE: what a person would edit in the registry's section [~iStoreNode].
setting() {
    printf '\n(registry: %s = %s)\n' "$1" "$2"
    sed -i "/^[;# ]*$1 *=/d; s/^\[~iStoreNode\]/&\n$1 = $2/" "$registry"
}

iqn=iqn.2025-01.org.example
# The same machine with a multipath tool of other words, and without one.
report="Name = volume\\\\nTarget = $iqn:volume\\\\nMount = /dev/mapper/eql-volume\\\\n"
sed "s|\"faults\": \[\]|\"faults\": [{ \"command\": \"ehcmcli\", \"output\": \"$report\" }]|" $usual >"$work/other-words.json"
sed 's/"ehcmcliInstalled": true/"ehcmcliInstalled": false/' $usual >"$work/no-multipath-tool.json"

step "Is everything here?" 0 "ok +machine +Red Hat family Linux, release 9 \
ok +administration tool +/sbin/iscsiadm, iscsiadm version 2\.1\.8 ok +initiator name +$iqn:initiator \
ok +kernel module +iscsi_tcp is loaded (ok +initiator daemon +a program listens at iscsid's socket|note +initiator daemon .* Start it: .*) \
ok +multipath daemon .* ok +multipath tool +/usr/sbin/ehcmcli \
ok +user +root ok +registry +/.*/state/registry\.ini ok +log +/.*/state/zniscsi\.log" zniscsi doctor
case $output in *"note  initiator daemon"*)
    echo "(the note is as it should be: no daemon runs here, and the simulated tools need none)"
    ;;
esac
step "Discover a portal: its targets" 0 \
    "$iqn:chap $iqn:left $iqn:multi $iqn:plain $iqn:right $iqn:slow $iqn:volume" zniscsi discover 192.0.2.10
step "Log on" 0 'logged on' zniscsi logon 192.0.2.10 $iqn:plain
step "The target's disks, two of them" 0 '/dev/sdb /dev/sda' zniscsi disks $iqn:plain
step "Log on again" 0 'already logged on' zniscsi logon 192.0.2.10 $iqn:plain
step "CHAP with a wrong secret" 1 \
    "zniscsi: cannot log on to $iqn:chap at 192.0.2.10 .*authorization failure\) .* check the CHAP name and the secret" \
    zniscsi logon 192.0.2.10 $iqn:chap --chap-user chapuser --chap-secret-file "$work/wrong-secret"
step "CHAP with the right one" 0 'logged on' \
    zniscsi logon 192.0.2.10 $iqn:chap --chap-user chapuser --chap-secret-file "$work/right-secret"
step "A portal that nobody answers at" 1 "zniscsi: cannot discover targets at 192.0.2.99 zniscsi: Failed to run .* \
zniscsi: iscsiadm: connect to 192.0.2.99 timed out zniscsi: iscsiadm: connection login retries .* \
zniscsi: check that 192.0.2.99 can be reached from here" zniscsi discover 192.0.2.99
step "A portal that refuses" 1 \
    "zniscsi: cannot discover .*: Connection refused .* zniscsi: check that the target's server runs at 192.0.2.12" \
    zniscsi discover 192.0.2.12
step "All sessions" 0 "SID +STATE +PORTAL +IFACE +LUN +DEVICE +SIZE +USED BY +IQN \
1 +LOGGED_IN +192.0.2.10 +default +1 +/dev/sdb +100M +- +$iqn:plain .* 2 +LOGGED_IN .* $iqn:chap" zniscsi sessions
step "The same for a program" 0 '\{"ok":true,"sessions":\[(\{"sid":[12],"state":"LOGGED_IN",.*\},?){3}\]\}' \
    zniscsi sessions --json

step "Log on to a target whose disks take their time" 0 'logged on' zniscsi logon 192.0.2.10 $iqn:slow
step "Wait for its disks" 0 '/dev/sdd /dev/sde' zniscsi disks $iqn:slow --wait 20

step "Two paths to one disk: the first" 0 'logged on' zniscsi logon 192.0.2.10 $iqn:multi
step "A second portal" 0 "$iqn:multi $iqn:plain" zniscsi discover 192.0.2.11
step "All paths of the target" 0 'already logged on 192.0.2.10 logged on 192.0.2.11' zniscsi logon $iqn:multi
step "What is on them" 0 "(.* /dev/mapper/mpatha,/dev/mapper/vg-data +$iqn:multi ?){2}" \
    zniscsi sessions /dev/mapper/mpatha --no-headings
step "Log off from a target in use" 1 "zniscsi: cannot log off from $iqn:multi: its disks are in use \
zniscsi: /dev/sd[a-z]: /dev/mapper/vg-data .* with --force, unwritten data is lost" zniscsi logoff $iqn:multi

step "Which target is behind a disk?" 0 "192.0.2.10 $iqn:plain" zniscsi target /dev/sdb
step "... behind a partition" 0 "192.0.2.10 $iqn:plain" zniscsi target /dev/sdb1
step "... behind a symbolic link" 0 "192.0.2.10 $iqn:plain" \
    zniscsi target "/dev/disk/by-path/ip-192.0.2.10:3260-iscsi-$iqn:plain-lun-1"
step "... behind a multipath device with two paths" 0 "192.0.2.10 $iqn:multi" zniscsi target /dev/mapper/mpatha
step "... behind a logical volume on top of it" 0 "192.0.2.10 $iqn:multi" zniscsi target /dev/mapper/vg-data

step "A multipath device whose paths lead to two targets: the one" 0 'logged on' \
    zniscsi logon 192.0.2.10 $iqn:left
step "... the other" 0 'logged on' zniscsi logon 192.0.2.10 $iqn:right
step "... is refused" 1 "zniscsi: cannot find the target of /dev/mapper/mpathb zniscsi: its paths lead to 2 targets: \
zniscsi: $iqn:left zniscsi: $iqn:right zniscsi: .* should match\." zniscsi target /dev/mapper/mpathb
step "A device that is no iSCSI disk" 1 \
    'zniscsi: cannot find the target of /dev/nvme0n1 zniscsi: no session presents it' zniscsi target /dev/nvme0n1
step "A device that is not there" 1 \
    'zniscsi: cannot find the target of /dev/sdz zniscsi: there is no block device /dev/sdz' zniscsi target /dev/sdz
step "A name that is no device path" 2 'zniscsi: DEVICE: [^:]*/dev/[^:]*' zniscsi target sdb

step "A volume that the multipath tool reports at its third look" 0 'logged on' \
    zniscsi logon 192.0.2.10 $iqn:volume
step "Its multipath device" 0 '/dev/mapper/eql-volume' zniscsi disk $iqn:volume --retry-pause 1
shown='Running|^/dev/'
look='[A-Za-z:]+: Running \[/usr/sbin/ehcmcli status\] '
first_disk='[A-Za-z0-9_]+: Running \[/sbin/iscsiadm -m session -P3\] /dev/sdb'
setting nRetryCounter 2
step "A target that the multipath tool does not know: two looks, then its disk" 0 "$look$look$first_disk" \
    zniscsi -v disk $iqn:plain --retry-pause 1
setting nRetryCounter 1
step "With the registry changed: one look" 0 "$look$first_disk" zniscsi -v disk $iqn:plain --retry-pause 1
shown=
scene=$work/other-words.json
step "A multipath tool that words its report differently is not understood: a disk, and the map that it is in" 0 \
    '\{"ok":true,"device":"/dev/mapper/eql-volume","path":"/dev/sd[a-z]"\}' zniscsi disk $iqn:volume --json
setting VolumeKey '"Name = "'
setting TargetIQNKey '"Target = "'
setting MPIODeviceKey '"Mount = "'
step "With its words in the registry it is" 0 '\{"ok":true,"device":"/dev/mapper/eql-volume","path":null\}' \
    zniscsi disk $iqn:volume --json
scene=$work/no-multipath-tool.json
step "Where the multipath tool is absent, the first disk at once" 0 '/dev/sdb' zniscsi disk $iqn:plain
scene=$usual

step "Log off" 0 'logged off' zniscsi logoff 192.0.2.10 $iqn:plain
step "Log off again" 0 'already logged off' zniscsi logoff 192.0.2.10 $iqn:plain
step "Forget a record that is in use" 1 "zniscsi: cannot delete the node record of $iqn:chap at 192.0.2.10 \
.*a session is using it.* zniscsi: log off first: zniscsi logoff 192.0.2.10 $iqn:chap" \
    zniscsi forget 192.0.2.10 $iqn:chap
step "Forget the record of the target that was logged off" 0 'forgotten' zniscsi forget 192.0.2.10 $iqn:plain
step "The disks of a target that has no session" 1 "zniscsi: cannot find a disk of $iqn:plain \
zniscsi: there is no session with $iqn:plain zniscsi: log on first: zniscsi logon $iqn:plain" \
    zniscsi disks $iqn:plain

if ! [ -s "$log" ] || grep -Eq "$secrets" "$log"; then
    echo "*** there is no log, or there is a secret in it" >&3
    steps=$((steps + 1))
fi
printf '\n%d of %d steps did what they should. The log of it all: %s\n' "$good" "$steps" "$log" >&3
[ "$good" -eq "$steps" ]
