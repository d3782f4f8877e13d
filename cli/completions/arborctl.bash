# bash completion for arborctl

_arborctl_commands="status updates doctor history orders show cancel forget compare check send scan install upload transfer remote-install"
_arborctl_commands+=" peers pair keygen verify trust slots confirm revert allow watch log ui"
_arborctl_everywhere="--json --socket --timeout --help"

# The versions that the device offers; silent and quick when there is none. (No question asked here leaves a log line.)
_arborctl_versions() {
    arborctl updates --timeout 1 2>/dev/null | awk 'NF == 0 { exit } NR > 1 { print $1 }'
}

# The files that were uploaded.
_arborctl_uploads() {
    arborctl updates --timeout 1 2>/dev/null | awk '
        NR == 1 { source = index($0, "SOURCE"); file = index($0, "FILE"); next }
        NF == 0 { exit }
        substr($0, source, 7) == "upload " { print substr($0, file) }'
}

# Ids of the newest jobs; of the open ones with "--state open".
_arborctl_ids() {
    arborctl history "$@" --timeout 1 2>/dev/null | awk 'NR > 1 { print $1 }'
}

# The keywords that the device's graph takes; none when it does not answer.
_arborctl_keywords() {
    arborctl send --list --timeout 1 2>/dev/null
}

# Serial numbers of the other devices that the device knows.
_arborctl_serials() {
    arborctl peers --timeout 1 2>/dev/null | awk '
        NR == 1 { at = index($0, "SERIAL"); next }
        NF == 0 { exit }
        { split(substr($0, at), cells); if (cells[1] != "-") print cells[1] }'
}

# Keys of other devices; the first two lines tell the device's own.
_arborctl_keys() {
    arborctl pair --timeout 1 2>/dev/null | awk 'NR > 2 && length($1) == 64 { print $1 }'
}

_arborctl_command() {
    local word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case " $_arborctl_commands " in
            *" $word "*) echo "$word"; return ;;
        esac
    done
}

_arborctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local command words
    COMPREPLY=()
    case $previous in
        --socket | --trust | --graph) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        --timeout | --board | --progress-host | --name | --address | -n | --lines | --since | --user | --port) return ;;
        --level) mapfile -t COMPREPLY < <(compgen -W "detail info warning error" -- "$current"); return ;;
        --kind) mapfile -t COMPREPLY < <(compgen -W "check scan install build transfer remote-install upload trust trial" -- "$current")
                return ;;
        --result) mapfile -t COMPREPLY < <(compgen -W "accepted refused" -- "$current"); return ;;
        --state) mapfile -t COMPREPLY < <(compgen -W "open queued running succeeded failed cancelled lost" -- "$current")
                 return ;;
        --to) mapfile -t COMPREPLY < <(compgen -W "$(_arborctl_serials)" -- "$current"); return ;;
        --model) mapfile -t COMPREPLY < <(compgen -W "KiteQM KiteLX QMA QMB QMC QMD QMDAccessory QMSim" -- "$current")
                 return ;;
    esac
    command=$(_arborctl_command)
    case $command in
        "") words="$_arborctl_commands --version" ;;
        install) words="--no-reboot --wait --progress-host" ;;
        check) words="--board --model" ;;
        transfer) words="--to --model --wait" ;;
        remote-install) words="--to --model --version --wait" ;;
        pair) words="--name --address --remove" ;;
        log) words="--lines --level --since --follow" ;;
        history) words="--lines --kind --state --since" ;;
        orders) words="--lines --result --user --since" ;;
        send) words=$(_arborctl_keywords) ;;
        doctor) words="--graph" ;;
        upload) words="--no-check" ;;
        ui) words="--port --network --no-open" ;;
        verify) words="--trust --state --development --board" ;;
    esac
    [[ $current == -* ]] || case $command in
        trust) if [[ $previous != trust ]]; then mapfile -t COMPREPLY < <(compgen -f -- "$current"); return; fi
               words="show apply" ;;
        scan | upload | keygen | verify) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        install | transfer) words+=" $(_arborctl_versions)" ;;
        pair) words+=" $(_arborctl_keys)" ;;
        show) words+=" $(_arborctl_ids)" ;;
        cancel) words+=" $(_arborctl_ids --state open)" ;;
        forget) words+=" $(_arborctl_uploads)" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words $_arborctl_everywhere" -- "$current")
}

complete -o filenames -F _arborctl arborctl
