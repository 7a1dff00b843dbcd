# shellcheck shell=sh disable=SC2034,SC2154
# Variables and functions for the commands of the scenarios. The commands run in the test's directory, as root of the
# simulated machine. No other file may contain a line of a file in given/secrets.
export ZN_LOG_LEVEL=2 # the log gets everything, so a secret would show there
log=$ZN_LOG_FILE
iqn=iqn.2025-01.org.example
secrets=given/secrets
printf 'secret-12345-ok\n' >$secrets/right
printf 'secret-of-somebody-else\n' >$secrets/wrong
chmod 600 $secrets/*

# on TARGET...: logs on to each at 192.0.2.10.
on() {
    zniscsi discover 192.0.2.10 >out/on
    for target; do
        zniscsi logon 192.0.2.10 "$iqn:$target" >out/on || return
    done
}

# setting KEY VALUE: in the registry's section [~iStoreNode].
setting() {
    sed -i "/^[;# ]*$1 *=/d; s/^\[~iStoreNode\]/&\n$1 = $2/" "$ZN_REGISTRY"
}

# terminal COMMAND: runs COMMAND in a terminal. Standard input is what a person types; the file screen is what
# the terminal shows.
terminal() {
    SHELL=/bin/sh script -qefc "$1" screen >/dev/null
}

# keys WORDS KEYS [TIMES]: waits until the terminal shows WORDS in TIMES lines (1), then types KEYS.
keys() {
    for _ in $(seq 1000); do
        seen=$(grep -cs "$1" screen)
        [ "${seen:-0}" -lt "${3:-1}" ] || break
        sleep 0.02
    done
    printf '%b' "$2"
}

# offers LINE...: prints what bash completes the last word of each LINE to. Without the time limit.
offers() {
    for line; do
        bash -c '. "$0"; timeout() { "${@:2}"; }; COMP_WORDBREAKS=" :" COMP_LINE=$1 COMP_POINT=${#1}
            _zniscsi; echo "${COMPREPLY[@]}"' "$source/cli/completion/zniscsi.bash" "$line"
    done
}

# machine ARGUMENT...: runs simulated/machine in the simulated machine.
machine() {
    "$source/simulated/machine" --tools "$tools" "$@"
}
