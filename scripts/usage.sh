# Read by the scripts of this folder: help, wrong use and progress, alike for all of them.
#
# show_help prints the script's usage() or, where it has none, the comment at its top. help_wanted ends
# the script with that when --help is among the arguments; nothing may be installed, built or written
# before. wrong_use ends it with one line and status 64.
show_help() {
    if declare -F usage > /dev/null; then
        usage
    else
        sed -n '2,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"
    fi
}
help_wanted() { # the script's arguments
    local argument
    for argument; do
        [ "$argument" != --help ] && [ "$argument" != -h ] || { show_help && exit 0; }
    done
}
# For a script that knows no other option.
no_option_wanted() { # the script's arguments
    local argument
    for argument; do
        [[ $argument != -* ]] || wrong_use "unknown option \"$argument\""
    done
}
wrong_use() { # TEXT
    echo "${0##*/}: $* (see --help)" >&2
    exit 64
}

# How far something long is: on a terminal in one line that is rewritten, elsewhere every ten seconds.
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
# Reads what ninja prints, adds it to a log and shows how far it is.
show_build() { # LOG
    local line
    while read -r line; do
        echo "$line" >> "$1"
        [[ ! $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || show_progress "building: ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]} steps"
    done
    end_progress
}
