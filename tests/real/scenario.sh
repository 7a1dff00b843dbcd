#!/bin/bash
# What an administrator does with zniscsi, against the real initiator and the real target; run by
# guest/init. What a step must show is read from the system itself (sysfs, multipath -ll, the node
# database), never from the library. /out/steps gets a line a step: step, expected, came.
# shellcheck source=tests/real/guest/targets
. /real/guest/targets

export ZN_LOG_FILE=/out/zniscsi.log ZN_LOG_LEVEL=2
map=/dev/mapper/mpatha
volume=/dev/mapper/group-volume

step() { printf '%s\t%s\t%s\n' "${@//iqn.2025-01.org.example:/}" >>/out/steps; }

# settle SECONDS CONDITION...: waits for the system; a wait in vain is a step that differs.
settle() { await "$@" || step "wait: ${*:2}" "within $1 s" "in vain"; }

# With the loader and the C library of the machine that built it: the guest's may be older.
program=(/programs/ld-linux-x86-64.so.2 --library-path /programs /programs/zniscsi)
zniscsi() { timeout -k 5 100 "${program[@]}" "$@"; }

awk() { busybox awk "$@"; }

one_line() { paste -sd' '; }

# call ARGUMENT...: runs zniscsi; `came` is its exit status and its output, in one line.
call() {
    zniscsi "$@" >/tmp/stdout 2>/tmp/stderr
    came=$?
    {
        echo "$(cut -d' ' -f1 /proc/uptime) zniscsi $* -> $came"
        cat /tmp/stdout /tmp/stderr
    } >>/out/transcript
    came="$came $(one_line </tmp/stdout)"
}

# refused WORDS ARGUMENT...: runs zniscsi; `came` is "refused: WORDS" when it failed, printed no
# result, and gave its reasons under its own name and with these words ("today's|an old initiator's").
refused() {
    call "${@:2}"
    if [ "$came" = "1 " ] && ! grep -qv '^zniscsi: ' /tmp/stderr && grep -qiE "$1" /tmp/stderr; then
        came="refused: $1"
    else
        came="$came$(one_line </tmp/stderr)"
    fi
}

# at_once ARGUMENT...: two zniscsi with the same arguments; `came` is what both gave, sorted.
at_once() {
    local number
    for number in 1 2; do
        (given=$(zniscsi "$@" 2>>/out/transcript); echo "$? $given" >/tmp/at-once.$number) &
    done
    wait
    came=$(sort /tmp/at-once.? | one_line)
}

# as_user COMMAND...: one of the above, with zniscsi run by an ordinary user.
as_user() {
    local program=(setpriv --reuid 12345 --regid 12345 --clear-groups "${program[@]}")
    ZN_LOG_FILE=/dev/null "$@"
}

# with_dev OPTION NODE NUMBER COMMAND...: the same, with a /dev that has nothing but this node.
# shellcheck disable=SC2016  # for the inner shell
with_dev() {
    local program=(unshare -m bash -c 'mount -t tmpfs -o "$1" dev /dev && mknod "$2" b ${3/:/ } && exec "${@:4}"'
        bash "${@:1:3}" "${program[@]}")
    "${@:4}"
}

# --- what the system says

address_of() { cat "/sys/class/iscsi_connection/connection${1##*session}:0/persistent_address"; }

# sessions IQN [PORTAL]: their directories, in the order in which the tool reports them (1, 10, 2).
sessions() {
    local session
    for session in /sys/class/iscsi_session/session*; do
        [ "$(cat "$session/targetname")" = "$1" ] || continue
        [ $# = 1 ] || [ "$(address_of "$session")" = "$2" ] || continue
        echo "$session"
    done 2>/dev/null
}

count() { sessions "$@" | wc -l; }

disks() {
    local session
    for session in $(sessions "$@"); do
        printf '%s\n' "$session"/device/target*/*/block/*
    done | sed -n 's|.*/\(sd\)|/dev/\1|p' | one_line
}

session_of() { readlink -f "/sys/block/${1#/dev/}/device" | grep -o 'session[0-9]*'; }

# The portal and IQN of a disk.
target_of() {
    local session
    session=/sys/class/iscsi_session/$(session_of "$1")
    echo "$(address_of "$session" | sed 's/.*:.*/[&]/') $(cat "$session/targetname")"
}

# rows IQN...: what zniscsi has to list for each disk of these targets, sorted.
rows() {
    local iqn disk state
    for iqn; do
        for disk in $(disks "$iqn"); do
            state=$(cat "/sys/block/${disk#/dev/}/device/state")
            state=$(cat "/sys/class/iscsi_session/$(session_of "$disk")/state")/$state
            echo "$(session_of "$disk" | tr -dc 0-9) ${state%/running} $(target_of "$disk") $disk"
        done
    done | sort
}

# listed: the same, as zniscsi has it.
listed() { zniscsi sessions --no-headings | awk '{ print $1, $2, $3, $NF, $6 }' | sort; }

# The node database: Debian has moved it between releases.
nodes() { find /etc/iscsi /var/lib/iscsi -maxdepth 1 -name nodes 2>/dev/null; }
recorded() { find "$(nodes)" -path "*/$1,3260,1" | wc -l; }
is_recorded() { [ -e "$(nodes)/$2/$1,3260,1" ] && echo recorded || echo "not recorded"; }
holders() { grep -rlF -e "$1" /written/upper /out | sed 's|^/written/upper||' | sort | one_line; }
paths() { multipath -ll mpatha | grep -c 'active ready running'; }
has_paths() { [ "$(paths)" = "$1" ]; }
has_disks() { [ "$(disks "$1" | wc -w)" = "$2" ]; }
state() { cat "$(sessions "$@")/state"; }
all_logged_in() { ! grep -qv LOGGED_IN /sys/class/iscsi_session/*/state; }
none_logged_in() { ! grep -q LOGGED_IN /sys/class/iscsi_session/*/state; }
read_block() { dd if="$1" of=/dev/null bs=4096 count=1 iflag=direct status=none && echo readable; }

printf 'seen\t%s\t%s\n' "$(iscsiadm --version 2>&1 | grep -o '[^ ]*$')" "$(uname -r)" >>/out/steps

# --- discovery and log-on

for portal in $portal1 $portal2 "[$portal6]"; do
    call discover "$portal"
    step "discover $portal" "0 chap many multi plain, 4 recorded" \
        "${came%% *} $(sort /tmp/stdout | one_line), $(recorded "${portal//[][]/}") recorded"
done
refused "cannot make connection" discover $portal1:3261
step "discover at a port that is refused" "refused: cannot make connection" "$came"

for command in records "discover $portal1" "logon $portal1 $plain" "forget $plain"; do
    # shellcheck disable=SC2086
    as_user refused "run as root" $command
    step "an ordinary user's ${command%% *}" "refused: run as root, root 700" \
        "$came, $(stat -c '%U %a' /run/zniscsi)"
done

# --- locks, and a tool that does not end

chap_logon=(logon "$portal1" "$chap" --chap-user "$chap_user" --chap-secret-file /tmp/secret)
echo $chap_secret >/tmp/secret
exec 7>/run/zniscsi/discovery
flock -s 7
refused "another zniscsi is at work" discover $portal1 --timeout 1
step "discover during a log-on with CHAP" "refused: another zniscsi is at work" "$came"
flock -x 7
refused "another zniscsi is at work" "${chap_logon[@]}" --timeout 1
step "log on with CHAP during a discovery" "refused: another zniscsi is at work, 0 sessions" \
    "$came, $(count $chap) sessions"
call logon $portal1 $multi
step "log on during a discovery" "0 logged on, 1 session" "$came, $(count $multi) session"
call logoff $multi
exec 7>&-

no_tool() { ! pgrep -x iscsiadm; }
is_free() { flock -n "/run/zniscsi/$1" true; }

pkill -STOP -x tgtd
call discover $portal1 --timeout 2 --json
step "target server stopped: discover --timeout" "1, timed-out, no tool" \
    "${came%% *}, $(grep -o timed-out /tmp/stdout), $(no_tool && echo no tool)"
"${program[@]}" discover $portal1 >/dev/null 2>&1 &
settle 60 pgrep -x iscsiadm
is_free discovery && step "lock of a discovery" held free
kill -KILL $!
settle 60 no_tool
settle 60 is_free discovery
refused "may still complete" logon $portal1 $plain --timeout 2
step "target server stopped: log on --timeout" "refused: may still complete, no tool" \
    "$came, $(no_tool && echo no tool)"
pkill -CONT -x tgtd
settle 60 all_logged_in

call logon $portal1 $plain # the daemon may have completed it
step "log on" "0, 1 session" "${came%% *}, $(count $plain $portal1) session"
call disks $plain --wait 30
step "disks appear (--wait)" "0 /dev/sd" "${came:0:9}"
settle 60 has_disks $plain 2
call disks $plain
step "disks, as sysfs has them" "0 $(disks $plain)" "$came"
call logon $portal1 $plain
step "log on again" "0 already logged on, 1 session" "$came, $(count $plain) session"
refused "No records found" logon 192.0.2.77 $plain
step "log on where there is no record" "refused: No records found, 1 session" \
    "$came, $(count $plain) session"

unauthorized="authorization|kernel has no such session|non-retryable"
refused "$unauthorized" logon $portal1 $chap
step "CHAP, no secret" "refused: $unauthorized, 0 sessions" "$came, $(count $chap) sessions"
refused "$unauthorized" logon $portal1 $chap --chap-user $chap_user \
    --chap-secret-stdin <<<"$wrong_secret"
step "CHAP, a wrong secret" "refused: $unauthorized, 0 sessions" "$came, $(count $chap) sessions"
for portal in $portal1 $portal2; do
    for _ in 1 2 3; do zniscsi discover "$portal"; done >/dev/null 2>&1 &
done
call "${chap_logon[@]}"
step "CHAP, the right secret, beside discoveries" "0 logged on, 1 session" "$came, $(count $chap) session"
wait # a later discovery takes the secret out of the record
call logoff $portal1 $chap
call "${chap_logon[@]}"
step "the same again" "0 logged on, 1 session" "$came, $(count $chap) session"
rm /tmp/secret

for portal in "$portal1" "$portal2"; do
    call logon "$portal" $multi
    step "log on to a volume of two paths, $portal" "0 logged on, 1 session" \
        "$came, $(count $multi "$portal") session"
done
settle 60 has_disks $chap 1
settle 60 has_disks $multi 2
settle 60 has_paths 2
call disks $multi
step "disks of a volume of two paths" "0 $(disks $multi), 2 paths" "$came, $(paths) paths"

# --- disks and targets

for iqn in $plain $chap $multi; do
    for disk in $(disks "$iqn"); do
        call target "$disk"
        step "target of $disk" "0 $(target_of "$disk")" "$came"
    done
done
for iqn in $plain $chap; do
    call disk "$iqn"
    step "disk of ${iqn##*:}" "0 $(disks "$iqn" | cut -d' ' -f1)" "$came"
done
call disk $multi
step "disk of multi: its map" "0 $map" "$came"
step "sessions, as sysfs has them" "$(rows $plain $chap $multi | one_line)" "$(listed | one_line)"
call sessions --no-headings
step "sessions: the map of two paths" "2 of $map" "$(grep -c " $map " /tmp/stdout) of $map"
first=$(disks $plain | cut -d' ' -f1)
echo ',,L' | sfdisk -q "$first"
settle 60 test -b "${first}1"
echo ',,L' | sfdisk -q --no-reread $map
kpartx -a -s -p -part $map
vgcreate -qq group $map-part1
lvcreate -qq -y -n volume -l 100%FREE group
for device in "${first}1" "$(find /dev/disk/by-path -lname "*/${first#/dev/}")"; do
    call target "$device"
    step "target of ${device:0:30}" "0 $portal1 $plain" "$came"
done
for device in $map "$(readlink -f $map)" $map-part1 $volume; do
    call target "$device"
    step "target of $device" "0 $portal1 $multi" "$came"
done
call target $volume --paths --no-headings
step "target of $volume --paths" "0, 2 of 2 as sysfs has them" "${came%% *}, $(
    awk '{ print $1, $2, $3, $4 }' /tmp/stdout | sort | comm -12 - <(
        for disk in $(disks $multi); do echo "$disk LOGGED_IN $(target_of "$disk")"; done | sort) | wc -l) of $(
    wc -l </tmp/stdout) as sysfs has them"
call doctor
step "doctor" "0, 0 fail" "${came%% *}, $(grep -c '^fail' /tmp/stdout) fail"

# --- disks that somebody uses, or that cannot be looked at

mounted=$(disks $plain | cut -d' ' -f2)
number=$(cat "/sys/class/block/${mounted#/dev/}/dev")
with_dev nodev "$mounted" "$number" refused "$mounted is in use: Permission denied" logoff $portal1 $plain
step "log off, a /dev without devices" \
    "refused: $mounted is in use: Permission denied, 2 unknown, 1 session" \
    "$came, $(grep -c "cannot tell" /tmp/stderr) unknown, $(count $plain) session"
with_dev dev "$first" "$number" refused "$first leads to another" logoff $portal1 $plain
step "log off, a /dev with another disk's node" "refused: $first leads to another, 1 session" \
    "$came, $(count $plain) session"
modprobe loop
mknod /tmp/node b "${number%:*}" "${number#*:}"
loop=$(losetup -f --show /tmp/node)
rm /tmp/node
refused "$mounted: $loop" logoff $portal1 $plain
step "log off beneath a loop device, its node deleted" "refused: $mounted: $loop, 1 session" \
    "$came, $(count $plain) session"
losetup -d "$loop"

# --- the target server stops answering, and goes on, under a mounted disk

mkfs.ext4 -q "$mounted"
mkdir -p /mnt
mount "$mounted" /mnt
echo kept >/mnt/file
sync
pkill -STOP -x tgtd
settle 60 none_logged_in
call disks $plain
step "target server stopped: disks" "0 $(disks $plain), FAILED" "$came, $(state $plain)"
step "target server stopped: sessions" "$(rows $plain $chap | one_line)" \
    "$(listed | grep -v " $multi " | one_line)" # those under the map may just change from FAILED to FREE
refused "has lost its connection" logon $portal1 $plain
step "target server stopped: log on" "refused: has lost its connection" "$came"
pkill -CONT -x tgtd
settle 60 all_logged_in
settle 60 has_paths 2
echo 3 >/proc/sys/vm/drop_caches
call disks $plain
step "target server goes on: disks" "0 $(disks $plain), LOGGED_IN, kept" \
    "$came, $(state $plain), $(cat /mnt/file)"
call logon $portal1 $plain
step "target server goes on: log on" "0 already logged on" "$came"
refused "/dev/sd.*: /mnt" logoff $portal1 $plain
echo 3 >/proc/sys/vm/drop_caches
step "log off under a mounted disk" "refused: /dev/sd.*: /mnt, 1 session, kept" \
    "$came, $(count $plain) session, $(cat /mnt/file)"
exec 8</mnt/file
umount -l /mnt
refused "$mounted: opened exclusively" logoff $portal1 $plain
step "log off under a file system without a place" \
    "refused: $mounted: opened exclusively, 1 session, kept" \
    "$came, $(count $plain) session, $(cat <&8)"
exec 8<&-

# --- the target server dies and comes back

pkill -KILL -x tgtd
settle 60 none_logged_in
call disks $plain
step "target server killed: disks" "0 $(disks $plain)" "$came"
call target $volume
step "target server killed: target of volume" "0 $portal1 $multi" "$came"
start_target_server
settle 60 all_logged_in
settle 60 has_paths 2
call disks $plain
step "target server back: disks" "0 $(disks $plain), readable" "$came, $(read_block "$first")"
call disks $multi
step "target server back: disks of two paths" "0 $(disks $multi), 2 paths, readable" \
    "$came, $(paths) paths, $(read_block $volume)"

# --- log-off and deletion

refused "a session is using it" forget $portal1 $plain
step "forget a record in use" "refused: a session is using it, recorded" \
    "$came, $(is_recorded $portal1 $plain)"
# Held at its first look only: it is stopped when it waits for another one (system call 230).
mount "$mounted" /mnt
exec 8</mnt/file
umount -l /mnt
"${program[@]}" logoff $portal1 $plain >/tmp/stdout 2>/tmp/stderr 8<&- &
while read -r call _ <"/proc/$!/syscall" && [ "$call" != 230 ]; do :; done 2>/dev/null
kill -STOP $!
exec 8<&-
kill -CONT $!
wait $!
came="$? $(one_line </tmp/stdout)$(one_line </tmp/stderr)"
settle 60 has_disks $plain 0
step "log off, a disk held for a moment" "0 logged off, 0 sessions, $first is gone" \
    "$came, $(count $plain) sessions, $first $([ -e "$first" ] && echo "is there" || echo "is gone")"
refused "a disk of $plain" disks $plain
step "disks after that" "refused: a disk of $plain" "$came"
call forget $portal1 $plain
step "forget" "0 forgotten, not recorded" "$came, $(is_recorded $portal1 $plain)"

call logoff $portal1 $multi
settle 60 has_disks $multi 1
settle 60 has_paths 1
refused "$volume" logoff $portal2 $multi
step "log off the last path under a volume" "refused: $volume, 1 path" "$came, $(paths) path"
call target $volume
step "one path logged off: target of volume" "0 $portal2 $multi, 1 path" "$came, $(paths) path"
# Its sessions no longer follow each other: the report has a target line for each, with its own portal.
call logon $portal2 $plain
call logon $portal1 $multi
settle 60 has_paths 2
call target $volume
step "another session between the paths' own" "0 $portal2 $multi, 2 paths" "$came, $(paths) paths"
mount "$(disks $plain | cut -d' ' -f2)" /mnt
call logoff $portal2 $plain --force
step "log off under a mounted disk, by force" "0 logged off, 0 sessions" "$came, $(count $plain) sessions"
umount -l /mnt

vgchange -qq -an group
call logoff $multi
step "log off a target under an unused partition" "0 logged off $portal1 logged off $portal2, 0 sessions" \
    "${came%% *} $(sort /tmp/stdout | one_line), $(count $multi) sessions"

# --- two zniscsi at once

at_once logon $portal2 $plain
step "two zniscsi log on at once" "0 already logged on 0 logged on, 1 session" \
    "$came, $(count $plain) session"
at_once logoff $portal2 $plain
step "two zniscsi log off at once" "0 already logged off 0 logged off, 0 sessions" \
    "$came, $(count $plain) sessions"

# --- a target of many disks, over IPv6

# What udev does for each disk takes longer than all else together, and no row here needs it.
udevadm control --stop-exec-queue
call logon "[$portal6]" $many
step "log on over IPv6" "0 logged on, 1 session" "$came, $(count $many $portal6) session"
settle 60 has_disks $many 64
call disks $many
step "64 disks" "0, 64 of 64 are in sysfs" "${came%% *}, $(
    comm -12 <(sort /tmp/stdout) <(disks $many | xargs -n 1 | sort) | wc -l) of $(
    wc -l </tmp/stdout) are in sysfs"
step "sessions over IPv6" "64 through [$portal6]" "$(zniscsi sessions | grep -cF " [$portal6] ") through [$portal6]"
call logoff "[$portal6]" $many
step "log off over IPv6" "0 logged off, 0 sessions" "$came, $(count $many) sessions"
call forget $many
step "forget a target" "0 forgotten $portal1 forgotten $portal2 forgotten [$portal6]" \
    "${came%% *} $(sort /tmp/stdout | one_line)"
call logon $multi
step "log on to a target" "0 logged on $portal1 logged on $portal2 logged on [$portal6], 3 sessions" \
    "${came%% *} $(sort /tmp/stdout | one_line), $(count $multi) sessions"
{
    iscsiadm -m iface -I second -o new
    iscsiadm -m node -T $plain -p $portal2:3260,1 -I second -o new
} >>/out/transcript 2>&1
call logon $portal2 $plain
step "two interfaces" "0 logged on, 2 sessions, default second" "$came, $(count $plain) sessions, $(
    zniscsi sessions $plain --no-headings | awk '{ print $4 }' | sort -u | one_line)"
call logoff $portal2 $plain --force
step "log off through two interfaces" "0 logged off, 0 sessions" "$came, $(count $plain) sessions"

# --- the initiator daemon is down (last: when it comes back, it does not take up every session again)

pkill -KILL -x iscsid
refused "can not connect to iSCSI daemon" discover $portal1
step "initiator daemon down: discover" "refused: can not connect to iSCSI daemon" "$came"
refused "can not connect to iSCSI daemon" logon $portal2 $plain
step "initiator daemon down: log on" "refused: can not connect to iSCSI daemon" "$came"
call disks $multi
step "initiator daemon down: disks" "0 $(disks $multi)" "$came"
step "initiator daemon down: sessions" "$(rows $multi $chap | one_line)" "$(listed | one_line)"
call doctor
step "initiator daemon down: doctor" "iscsid does not listen" "$(grep -o 'iscsid does not listen' /tmp/stdout)"

# --- the secret: all files written since the guest was started

step "files that hold the secret: its node record" \
    "$(nodes)/$chap/$portal1,3260,1/default" "$(holders $chap_secret)"
step "files that hold the wrong secret" "" "$(holders $wrong_secret)"
echo end >>/out/steps
