# bash completion for the commands and options of otactl and corvo_commit, based on the output of --help.

_otactl() {
    local program=$1 word=$2 before=$3 commands=() candidate help i
    for ((i = 1; i < COMP_CWORD; i++)); do
        # Commands are the words that the parent's help lists under this title.
        candidate=${COMP_WORDS[i]}
        help=$("$program" "${commands[@]}" --help 2> /dev/null) || return
        [[ $candidate == [a-z]* ]] && sed -n '/^Subcommands:/,/^$/p' <<< "$help" |
            grep -q "^  $candidate\( \|$\)" && commands+=("$candidate")
    done
    help=$("$program" "${commands[@]}" --help 2> /dev/null) || return
    case $before in
        --dir) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        --address | --level) ;;
        --*)
            # Complete the value of an option as a file name.
            if grep -q "^  $before [A-Z]" <<< "$help"; then
                mapfile -t COMPREPLY < <(compgen -f -- "$word")
                return
            fi
            ;;&
        *)
            candidates=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][^ ]*\).*/\1/p
                s/^  \(-[^ ]*,\)\{0,1\}\(--[a-z-]*\).*/\2/p' <<< "$help")
            mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$word")
            ;;
    esac
}
complete -o default -o filenames -F _otactl otactl corvo_commit
