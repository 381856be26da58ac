#!/usr/bin/env bash
# Compares docs/security.md with what is there: every test that it names exists, and what a running
# system makes has its row, with the mode that it says, under both umasks. Argument: the build tree.
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
        fuzz_*) [ -e "$checkout/tests/fuzz/$name.cpp" ] || complain "the page names $name, which is no target" ;;
        *) grep -qE "[ /]${name/./\\.}(/|  |\$)" <<< "$tests" || complain "the page names $name, which is no test" ;;
    esac
done < <(grep -oE '`(fuzz_[a-z_]+|[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+)`' "$page" | tr -d '`' | sort -u)
[ "$(grep -cE '`[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+`' "$page")" -gt 10 ] || complain "the page names hardly a test"

# Each way in names what shows that it is held, or says that nothing does.
while read -r way; do
    complain "nothing is named for $way"
done < <(awk -F ' *\\| *' '/^## /{ on = /Ways in/ } on && NF == 7 && $2 !~ /^(Way in|---)/ && $6 !~ /`|nothing/ { print $2 }' "$page")

# Name, kind, mode and owner: of the row, the mode in its fourth column or its last one.
rows() { # COLUMN
    awk -F ' *\\| *' -v mode="$1" '/^## /{ on = /What a running system makes/ } on && $2 ~ /^`/ {
        gsub("`", "", $2); print $2, $3, $mode, $5 }' "$page" | sort
}
for setting in "022 4" "000 8"; do
    read -r umask column <<< "$setting"
    found=$("$checkout/scripts/private_root" sh "$checkout/tests/support/running_system.sh" "$1" "$umask" | sort -u)
    expected=$(rows "$column")
    # Where there is no other user the owners are not compared.
    ! grep -qx "one user" <<< "$found" ||
        { expected=${expected// agent/ root} && found=$(grep -vx "one user" <<< "$found"); }
    difference=$(diff <(echo "$expected") <(echo "$found")) ||
        complain "umask $umask: < is what the page says, > what there is" "$difference"
done
exit $status
