# shellcheck shell=bash
# Completes zniscsi's command line in bash. Commands and options are those of its help; portals and targets are
# those of this machine's node records and sessions. The package bash-completion need not be loaded. Without zniscsi
# nothing is offered.

# What zniscsi says. Asking leaves no line in the log, and a tool that hangs is not waited for.
_zniscsi_ask() { # ARGUMENT...
    ZN_LOG_FILE=/dev/null timeout 5 "$program" "$@" 2>/dev/null </dev/null
}

#   -h,--help               Print this help message and exit
#   --wait S                Retry for up to S seconds
_zniscsi_options() { # [COMMAND], an option a line, with the name of its value: "--help", "--wait S"
    _zniscsi_ask "$@" --help | sed -nE 's/^ +(-[a-z], *)?(-[-a-z]+( [A-Z]+)?) .*/\2/p'
}

#   logon, login            Log on to a target, with CHAP if it requires it
_zniscsi_commands() {
    _zniscsi_ask --help | sed -nE '/^commands:/I,/^$/s/^  ([a-z, ]*[a-z])   .*/\1/p' | sed 's/, /\n/g'
}

# Usage: zniscsi logon [OPTIONS] [PORTAL] IQN
_zniscsi_arguments() { # COMMAND
    _zniscsi_ask "$1" --help | sed -n 's/^ *Usage: [^]]*\] *//p'
}

# "PORTAL IQN" a line, of what the command can be used on.
_zniscsi_nodes() { # COMMAND
    case $1 in
    discover | logon | login | forget) _zniscsi_ask records --no-headings | awk '{ print $1, $NF }' ;;
    *) _zniscsi_ask sessions --no-headings | awk '{ print $3, $NF }' ;;
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

# The values of an argument. An optional PORTAL may be left out: then an IQN takes its place.
_zniscsi_values() { # ARGUMENT COMMAND PORTAL
    case $1 in
    PORTAL) _zniscsi_nodes "$2" | cut -d' ' -f1 ;;
    '[PORTAL]') _zniscsi_nodes "$2" | tr ' ' '\n' ;;
    IQN) _zniscsi_nodes "$2" | awk -v portal="$3" 'portal == "" || $1 == portal { print $2 }' ;;
    '[IQN|DEVICE]')
        _zniscsi_values IQN "$2"
        _zniscsi_devices
        ;;
    DEVICE) _zniscsi_devices ;;
    esac
}

# Offers those candidates, one a line, that begin with the word. Names come from outside, and what is completed is
# run: what bash would expand is quoted.
_zniscsi_offer() { # WORD QUOTE
    local candidate plain='^[A-Za-z0-9.:%_/+-]+$' kept=''
    # What readline replaces begins behind the last colon, but not within quotes.
    [[ $2 || $COMP_WORDBREAKS != *:* ]] || kept=${1%"${1##*:}"}
    while read -r candidate _; do
        [[ $candidate && $candidate == "$1"* && ($1 == -* || $candidate != -*) ]] || continue
        case $2$candidate in
        *[!\'\"]*[\'\\]* | \"*[\"\$\`!]*) continue ;;
        esac
        candidate=${candidate#"$kept"}
        [[ $2 || $candidate =~ $plain ]] || candidate="'$candidate'"
        COMPREPLY+=("$candidate")
    done
}

_zniscsi() {
    # Split at blanks alone: bash splits at colons, too.
    local line=${COMP_LINE:0:COMP_POINT} words
    read -ra words <<<"$line"
    [[ $line != *[[:blank:]] ]] || words+=("")
    local program=${words[0]} current=${words[-1]} quote=''
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
        quote=${current:0:1} current=${current:1}
    fi

    local candidates
    if [[ $'\n'$options == *$'\n'"$option FILE"* || $current == /dev/disk/* ]]; then
        compopt -o default
        return
    elif [[ $option ]]; then
        return
    elif [[ $current == -* ]]; then
        candidates=$options
    elif [[ -z $command ]]; then
        candidates=$(_zniscsi_commands)
    elif [[ $command == help ]]; then
        [[ ${#arguments[@]} -gt 0 ]] || candidates=$(_zniscsi_commands)
    elif [[ ${arguments[0]} != [ien][qua][nia].* ]]; then
        read -ra kinds <<<"$(_zniscsi_arguments "$command")"
        word=${arguments[0]//[\'\"]/}
        candidates=$(_zniscsi_values "${kinds[${#arguments[@]}]}" "$command" "${word%:3260}")
    fi
    _zniscsi_offer "$current" "$quote" < <(sort -u <<<"$candidates")
}

complete -F _zniscsi zniscsi
