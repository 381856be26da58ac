#!/usr/bin/env bash
# Tests in a clone of the checkout what scripts/release refuses before it builds anything.
set -euo pipefail

checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git -c safe.directory='*' clone --quiet "$checkout" "$work/clone"
cd "$work/clone"
cp "$checkout/scripts/release" scripts/release
git config user.name tester && git config user.email tester@corvo-camera.example
sed -i 's/^\(project(.* VERSION \)[0-9.]*/\11.2.3/' CMakeLists.txt
printf '## [1.2.3] - 2026-01-02\n\n## [1.2.4] - 2026-01-02\n' > CHANGELOG.md
: > key.pem
printf '/key.pem\n' >> .git/info/exclude
git add . && git commit --quiet --message "For a release"

refuses() { # REASON VERSION
    local output
    output=$(scripts/release "$2" --key key.pem --certificate key.pem --without-tests 2>&1) && output="nothing"
    grep -q "$1" <<< "$output" || { echo "version $2: expected \"$1\", not \"$output\"" && exit 1; }
}
git tag v1.2.3
refuses "1.2.3 is not above 1.2.3" 1.2.3
refuses "1.2.2 is not above 1.2.3" 1.2.2
refuses "CHANGELOG.md has no section for 1.10.0" 1.10.0
refuses "declares version 1.2.3" 1.2.4
git tag --delete v1.2.3 > /dev/null
mkdir -p release/1.2.3
refuses "exists already" 1.2.3
touch other
refuses "the tree is dirty" 1.2.3
