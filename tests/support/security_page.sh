#!/usr/bin/env bash
# Checks docs/security.md: every test that it names must exist, and its table of files must agree with those that
# a running system creates, with their modes under two umasks. Argument: the build folder.
set -euo pipefail

checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
page=$checkout/docs/security.md
status=0
complain() {
    echo "$*"
    status=1
}

tests=$(ctest --test-dir "$1" -N)
while read -r name; do
    case $name in
        fuzz_*) [ -e "$checkout/tests/fuzz/$name.cpp" ] || complain "the page names the fuzz target $name, which does not exist" ;;
        *) grep -qE "[ /]${name/./\\.}(/|  |\$)" <<< "$tests" || complain "the page names the test $name, which does not exist" ;;
    esac
done < <(grep -oE '`(fuzz_[a-z_]+|[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+)`' "$page" | tr -d '`' | sort -u)
[ "$(grep -cE '`[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+`' "$page")" -gt 10 ] || complain "the page names too few tests"

# Each row of "Ways in" must name a test or another proof, or contain the word "nothing".
while read -r way; do
    complain "the page names no test for $way"
done < <(awk -F ' *\\| *' '/^## /{ on = /Ways in/ } on && NF == 7 && $2 !~ /^(Way in|---)/ && $6 !~ /`|nothing/ { print $2 }' "$page")

# Prints name, type, mode and owner of each row; the mode is in the given column.
rows() { # COLUMN
    awk -F ' *\\| *' -v mode="$1" '/^## /{ on = /What a running system makes/ } on && $2 ~ /^`/ {
        gsub("`", "", $2); print $2, $3, $mode, $5 }' "$page" | sort
}
for setting in "022 4" "000 8"; do
    read -r umask column <<< "$setting"
    found=$("$checkout/scripts/private_root" sh "$checkout/tests/support/running_system.sh" "$1" "$umask" | sort -u)
    expected=$(rows "$column")
    # Without another user, owners cannot be compared.
    ! grep -qx "one user" <<< "$found" ||
        { expected=${expected// agent/ root} && found=$(grep -vx "one user" <<< "$found"); }
    difference=$(diff <(echo "$expected") <(echo "$found")) ||
        complain "umask $umask (<: the page, >: the running system)" "$difference"
done
exit $status
