# Sourced by the scripts of this folder: help, error for wrong use, progress.
#
# show_help prints the script's usage() or, without that function, the comment at the top of the script.
# help_wanted prints the help and exits if an argument is --help or -h; a script must call it before it
# installs, builds or writes anything. wrong_use prints one line and exits with status 64.
show_help() {
    if declare -F usage > /dev/null; then
        usage
    else
        sed -n '2,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"
    fi
}
help_wanted() { # ARGUMENT of the script...
    local argument
    for argument; do
        [ "$argument" != --help ] && [ "$argument" != -h ] || { show_help && exit 0; }
    done
}
# For a script without options: any argument that starts with "-" is wrong use.
no_option_wanted() { # ARGUMENT of the script...
    local argument
    for argument; do
        [[ $argument != -* ]] || wrong_use "unknown option \"$argument\""
    done
}
wrong_use() { # TEXT
    echo "${0##*/}: $* (see --help)" >&2
    exit 64
}

# Shows progress: on a terminal in one line that is rewritten, otherwise a line every ten seconds.
progress_shown=$SECONDS
show_progress() { # TEXT
    if [ -t 1 ]; then
        printf '\r\033[K%s' "$1"
    elif [ $((SECONDS - progress_shown)) -ge 10 ]; then
        echo "$1"
        progress_shown=$SECONDS
    fi
}
end_progress() {
    [ ! -t 1 ] || printf '\r\033[K'
}
# Reads ninja's output from standard input, appends it to a log and shows the progress.
show_build() { # LOG
    local line
    while read -r line; do
        echo "$line" >> "$1"
        [[ ! $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || show_progress "building: ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]} steps"
    done
    end_progress
}
# Between these two calls, shows every second how far a command is: ninja's last step in the log, or the
# seconds. The process in the background ends with the script too.
begin_progress() { # TEXT [LOG]
    local begin=$SECONDS
    (
        while sleep 1 && kill -0 $$ 2> /dev/null; do
            show_progress "$1: $(tail -n 1 "${2:-/dev/null}" 2> /dev/null | grep -ao '^\[[0-9]*/[0-9]*\]' ||
                echo "$((SECONDS - begin)) s")"
        done
    ) &
    progress_job=$!
}
stop_progress() {
    { kill $progress_job && wait $progress_job; } 2> /dev/null || :
    end_progress
}
# Runs a command with its output in a file, and shows the progress. If the command fails, prints the end of
# its output and one line, and exits with status 1.
run_logged() { # LOG TEXT COMMAND...
    local log=$1 text=$2 status
    : > "$log"
    [ -t 1 ] || echo "$text"
    progress_shown=$SECONDS
    begin_progress "$text" "$log"
    # Not in the background, where an interrupt would not end it, and not in a condition, where "set -e"
    # would have no effect.
    set +e
    (
        set -e
        "${@:3}"
    ) > "$log" 2>&1
    status=$?
    set -e
    stop_progress
    [ $status = 0 ] || {
        tail -n 20 "$log" >&2
        echo "${0##*/}: $text: failed; the whole output is in $log" >&2
        exit 1
    }
}
