# shellcheck shell=bash
# Completes zniscsi's command line in bash. Commands and options are those of its help; portals and targets are
# those of this machine's node records and sessions. The package bash-completion need not be loaded, and an agent that
# is not there offers nothing.

# What the agent says. Asking leaves no line in the log, and a tool that hangs is not waited for.
_zniscsi_ask() { # ARGUMENT...
    ZN_LOG_FILE=/dev/null timeout 5 "$agent" "$@" 2>/dev/null </dev/null
}

#   -h,--help               Print this help message and exit
#   --wait S                Look again until it is there or S seconds are over
_zniscsi_options() { # [COMMAND], an option a line, with the name of its value: "--help", "--wait S"
    _zniscsi_ask "$@" --help | sed -nE 's/^ +(-[a-z], *)?(-[-a-z]+( [A-Z]+)?) .*/\2/p'
}

#   logon, login            Log on to a target, with CHAP if it asks for it
_zniscsi_commands() {
    _zniscsi_ask --help | sed -nE '/^commands:/I,/^$/s/^  ([a-z, ]*[a-z])   .*/\1/p' | sed 's/, /\n/g'
}

# Usage: zniscsi logon [OPTIONS] PORTAL IQN
_zniscsi_arguments() { # COMMAND
    _zniscsi_ask "$1" --help | sed -n 's/^ *Usage: .*\] *//p'
}

# "PORTAL IQN" a line, of what the command can be used on.
_zniscsi_nodes() { # COMMAND
    case $1 in
    discover | logon | login | forget) _zniscsi_ask records --no-headings ;;
    *) _zniscsi_ask sessions --no-headings | awk '{ print $3, $4 }' ;;
    esac
}

_zniscsi_devices() {
    local entry name
    for entry in /sys/class/block/*; do
        name=${entry##*/}
        case $name in
        loop* | ram* | zram* | sr* | '*') ;;
        dm-*) read -r name <"$entry/dm/name" && echo "/dev/mapper/$name" ;;
        *) echo "/dev/${name//!//}" ;;
        esac
    done 2>/dev/null
}

_zniscsi_values() { # KIND COMMAND PORTAL
    case $1 in
    PORTAL) _zniscsi_nodes "$2" | cut -d' ' -f1 ;;
    IQN) _zniscsi_nodes "$2" | awk -v portal="$3" 'portal == "" || $1 == portal { print $2 }' ;;
    DEVICE) _zniscsi_devices ;;
    esac
}

_zniscsi() {
    # Split at blanks alone: bash splits at colons, too.
    local line=${COMP_LINE:0:COMP_POINT} words
    read -ra words <<<"$line"
    [[ $line != *[[:blank:]] ]] || words+=("")
    local agent=${words[0]} current=${words[-1]} broken=$COMP_WORDBREAKS
    unset 'words[0]' 'words[-1]'
    COMPREPLY=()

    # The command, its arguments before the cursor, and the option that takes the word as its value.
    local word options command='' option='' arguments=() kinds
    options=$(_zniscsi_options)
    [[ $options ]] || return
    for word in "${words[@]}"; do
        if [[ $option ]]; then
            option=
        elif [[ $word == -* ]]; then
            [[ $'\n'$options != *$'\n'"$word "* ]] || option=$word
        elif [[ $command ]]; then
            arguments+=("$word")
        else
            command=$word
            options+=$'\n'$(_zniscsi_options "$command")
        fi
    done
    if [[ $current == --*=* ]]; then
        option=${current%%=*} current=${current#*=}
    elif [[ $current == [\'\"]* ]]; then
        current=${current:1} broken= # readline breaks no word in quotes
    fi

    local candidates candidate
    if [[ $'\n'$options == *$'\n'"$option FILE"* || $current == /dev/disk/* ]]; then
        compopt -o default
        return
    elif [[ $option ]]; then
        return
    elif [[ $current == -* ]]; then
        candidates=$options
    elif [[ -z $command ]]; then
        candidates=$(_zniscsi_commands)
    else
        read -ra kinds <<<"$(_zniscsi_arguments "$command")"
        [[ ${kinds[0]} == PORTAL ]] || arguments=("" "${arguments[@]}") kinds=("" "${kinds[@]}")
        word=${arguments[0]//[\'\"]/}
        candidates=$(_zniscsi_values "${kinds[${#arguments[@]}]}" "$command" "${word%:3260}")
    fi
    # Names come from outside, and what is completed is run: one that the shell would expand is left out.
    local plain='^[][A-Za-z0-9.:%_/+-]+$'
    while read -r candidate _; do
        [[ $candidate != "$current"* || ! $candidate =~ $plain ]] || COMPREPLY+=("$candidate")
    done < <(sort -u <<<"$candidates")
    # What readline replaces begins behind the last colon.
    if [[ $broken == *:* && $current == *:* ]]; then
        COMPREPLY=("${COMPREPLY[@]#"${current%"${current##*:}"}"}")
    fi
}

complete -F _zniscsi zniscsi
