# Usage: scripts_run.sh CHECKOUT. Every script is run by CI or by a test, or by a script that is: what
# nobody runs breaks unnoticed. What lies in NAME.d is a part of NAME.
set -eu
cd "$1"
left=$(find scripts -maxdepth 1 -type f -perm -u+x)
text=$(grep -hv '^ *#' .ci/run tests/*.cmake tests/*.cpp tests/support/*)
while [ -n "$left" ]; do
    found=
    for script in $left; do
        # The folder is written out, or is that of the script that runs it.
        if grep -qE "(scripts|dirname \"[^\"]*\"\)\"?)/${script#scripts/}\b|with_name\(\"${script#scripts/}\"\)" <<< "$text"; then
            found="$found $script"
        fi
    done
    [ -n "$found" ] || { echo "nothing runs" $left && exit 1; }
    left=$(grep -vxF "$(printf '%s\n' $found)" <<< "$left" || :)
    text=$(for script in $found; do find "$script" "$script.d" -type f -exec grep -hv '^ *#' {} + 2> /dev/null; done || :)
done
