# shellcheck shell=sh disable=SC2034,SC2154
# What the commands of every scenario may use. They run in a folder of their own, as root of the simulated
# machine. No line of a file in given/secrets may turn up anywhere else.
export ZN_LOG_LEVEL=2 # whatever could reach the log does
log=$ZN_LOG_FILE
iqn=iqn.2025-01.org.example
secrets=given/secrets
printf 'secret-12345-ok\n' >$secrets/right
printf 'secret-of-somebody-else\n' >$secrets/wrong
chmod 600 $secrets/*

# on TARGET...: logs on to each at 192.0.2.10.
on() {
    zniscsi discover 192.0.2.10 >came/on
    for target; do
        zniscsi logon 192.0.2.10 "$iqn:$target" >came/on || return
    done
}

# setting KEY VALUE: in the registry's section [~iStoreNode].
setting() {
    sed -i "/^[;# ]*$1 *=/d; s/^\[~iStoreNode\]/&\n$1 = $2/" "$ZN_REGISTRY"
}

# terminal COMMAND: runs COMMAND in a terminal, where standard input is typed. What was shown is in the file
# screen.
terminal() {
    SHELL=/bin/sh script -qefc "$1" screen >/dev/null
}

# keys WORDS KEYS [TIMES]: the keys that a person presses on seeing WORDS in the terminal, TIMES over.
keys() {
    for _ in $(seq 1000); do
        seen=$(grep -cs "$1" screen)
        [ "${seen:-0}" -lt "${3:-1}" ] || break
        sleep 0.02
    done
    printf '%b' "$2"
}

# offers LINE...: what bash offers for the last word of each, however long that takes.
offers() {
    for line; do
        bash -c '. "$0"; timeout() { "${@:2}"; }; COMP_WORDBREAKS=" :" COMP_LINE=$1 COMP_POINT=${#1}
            _zniscsi; echo "${COMPREPLY[@]}"' "$source/completion/zniscsi.bash" "$line"
    done
}

# A machine in the machine.
machine() {
    "$source/simulated/machine" --tools "$tools" "$@"
}
