# bash completion for lyractl: commands, options, modes, players and media sources. Commands and
# options come from the tool's own help, so they are those of the version that is installed.

_lyractl_players() {
    lyractl players 2>/dev/null
}

_lyractl_sources() {
    lyractl sources 2>/dev/null | awk 'NR > 1 { print $1 }'
}

_lyractl_commands() {
    lyractl --help 2>/dev/null | awk '/^Subcommands:/ { on = 1; next } on && NF { print $1 }'
}

_lyractl_options() {
    lyractl "$@" --help 2>/dev/null | grep -oE '(^|[ ,])--?[a-z]+' | tr -d ' ,'
}

_lyractl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i
    local candidates=''
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --service) ((i++)) ;;
        -*) ;;
        *)
            command=${COMP_WORDS[i]}
            break
            ;;
        esac
    done
    case $before in
    -p | --player) candidates=$(_lyractl_players) ;;
    -c | --config)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    --source) candidates=$(_lyractl_sources) ;;
    --service | --folder | --note | --filter | --key | --offset | --limit | --start | --expected | --resume | --seconds)
        return
        ;;
    *)
        if [[ $word == -* ]]; then
            candidates=$(_lyractl_options ${command:+"$command"})
        elif [[ -z $command ]]; then
            candidates=$(_lyractl_commands)
        else
            case $command in
            browse | session) candidates=$(_lyractl_sources) ;;
            watch | open | close) candidates=$(_lyractl_players) ;;
            shuffle) candidates=$'on\noff' ;;
            repeat) candidates=$'off\nall\none' ;;
            esac
        fi
        ;;
    esac
    # Not with compgen -W, which would expand what a player's name holds.
    local candidate
    COMPREPLY=()
    while IFS= read -r candidate; do
        if [[ -n $candidate && $candidate == "$word"* ]]; then
            COMPREPLY+=("$(printf '%q' "$candidate")")
        fi
    done <<<"$candidates"
}

complete -F _lyractl lyractl
