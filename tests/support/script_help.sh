# Usage: script_help.sh CHECKOUT COPY. Tests in a copy of the checkout, which it creates in the folder COPY, that
# each script prints its help, and rejects an unknown option with one line, without creating any file.
set -eu
wrong=0
complain() { echo "$name: $*" && wrong=1; }

rm -rf "$2"
mkdir -p "$2"
cd "$1"
tar --exclude=./build --exclude=./release --exclude=./.git -cf - . | tar -xf - -C "$2"
cd "$2"
find . -type f | sort > ../script_help.before
for script in scripts/*; do
    name=${script#scripts/}
    { [ -f "$script" ] && [ -x "$script" ]; } || continue
    help=$(timeout 10 "$script" --help 2> ../script_help.error < /dev/null) || complain "--help ends with $?"
    [ -n "$help" ] || complain "--help prints nothing"
    [ ! -s ../script_help.error ] || complain "--help complains: $(cat ../script_help.error)"
    status=0
    timeout 10 "$script" --no-such-option > ../script_help.error 2>&1 < /dev/null || status=$?
    [ $status = 64 ] || complain "an unknown option ends with $status"
    [ "$(wc -l < ../script_help.error)" = 1 ] || complain "an unknown option is not one line: $(cat ../script_help.error)"
done
find . -type f | sort | cmp -s - ../script_help.before || complain "files were created: $(find . -type f | sort | diff - ../script_help.before)"
exit $wrong
