# Usage: scripts_run.sh CHECKOUT. Checks that every script is run by CI or a test, directly or by another script,
# so that no script breaks unnoticed. Files in NAME.d are parts of the script NAME.
set -eu
cd "$1"
left=$(find scripts -maxdepth 1 -type f -perm -u+x)
text=$(grep -hv '^ *#' .ci/run tests/*.cmake tests/*.cpp tests/support/*)
while [ -n "$left" ]; do
    found=
    for script in $left; do
        # The path contains the folder "scripts", or is relative to the calling script.
        if grep -qE "(scripts|dirname \"[^\"]*\"\)\"?)/${script#scripts/}\b|with_name\(\"${script#scripts/}\"\)" <<< "$text"; then
            found="$found $script"
        fi
    done
    [ -n "$found" ] || { echo "neither CI nor a test runs" $left && exit 1; }
    left=$(grep -vxF "$(printf '%s\n' $found)" <<< "$left" || :)
    text=$(for script in $found; do find "$script" "$script.d" -type f -exec grep -hv '^ *#' {} + 2> /dev/null; done || :)
done
