#!/usr/bin/env bash
# Tests in a clone of the checkout how scripts/release prepares a version, and that it reports everything
# that prevents a release before it builds anything.
set -euo pipefail

checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git -c safe.directory='*' clone --quiet "$checkout" "$work/clone"
cd "$work/clone"
cp "$checkout"/scripts/{release,usage.sh} scripts/
git config user.name tester && git config user.email tester@corvo-camera.example
pki=$work/pki
scripts/make_pki "$pki"
sed -i 's/^\(project(.* VERSION \)[0-9.]*/\11.2.3/' CMakeLists.txt
sed -i 's/^Version [0-9.]*;/Version 1.2.3;/' README.md
printf '## [Unreleased]\n\n- more\n\n## [1.2.3] - 2026-01-02\n\n- first\n' > CHANGELOG.md
git add . && git commit --quiet --message "For a release"

prints() { # STATUS LINES ARGUMENT...
    local output status=0
    output=$(scripts/release "${@:3}" 2>&1) || status=$?
    output=${output//"$work/"/}
    [ "$status: $output" = "$1: $2" ] || {
        printf '%s\n  ended with %s: %s\n  expected   %s: %s\n' "${*:3}" "$status" "$output" "$1" "$2"
        exit 1
    }
}
# The command of the page, with the keys in the current folder.
cp "$pki"/{signer,authority}.{key,pem} .
printf '/*.key\n/*.pem\n' >> .git/info/exclude
read -ra key < <(sed -n 's#^ *scripts/release \(--key .*\)#\1#p' "$checkout/docs/releasing.md")
prints 0 "release 1.2.3: nothing prevents it; it would be written to release/1.2.3" --dry-run "${key[@]}"
prints 1 "release: --key: no.key does not exist" --dry-run --key "$work/no.key"
(cd "$pki" && openssl ca -config pki.cnf -batch -notext -extensions signer -startdate 200101000000Z -enddate 210101000000Z \
    -in signer.csr -out old.pem 2> /dev/null)
prints 1 "release: pki/old.pem has expired" --dry-run --key "$pki/signer.key" --certificate "$pki/old.pem"
git tag v1.2.3
touch other
mkdir -p "$work/there"
prints 1 "release: the tree is dirty: commit the changes that git status shows
release: 1.2.3 is not above 1.2.3, the last release
release: there exists already
release: pki/root.pem is not for code signing
release: pki/signer.key is not the key of pki/root.pem" \
    --output "$work/there" --key "$pki/signer.key" --certificate "$pki/root.pem" --without-tests
rm other

prints 1 "release: 1.2.2 is not above 1.2.3, the last release" --prepare 1.2.2
prints 0 "Version 1.10.0 is written to CMakeLists.txt, CHANGELOG.md and README.md: check and commit these changes" --prepare 1.10.0
prints 1 "release: the tree is dirty: commit the changes that git status shows" --dry-run "${key[@]}"
[ "$(git diff --name-only | tr '\n' ' ')" = "CHANGELOG.md CMakeLists.txt README.md " ]
git commit --quiet --all --message "The next release"
prints 0 "release 1.10.0: nothing prevents it; it would be written to there/new" --dry-run --output "$work/there/new" "${key[@]}"
prints 1 "release: CHANGELOG.md has no changes under \"## [Unreleased]\"" --prepare 1.11.0
sed -i 's/VERSION 1.10.0/VERSION 1.10.1/' CMakeLists.txt
git commit --quiet --all --message "A version that nothing describes"
prints 1 "release: CHANGELOG.md has no section for 1.10.1 (see --prepare)
release: README.md does not name version 1.10.1 (see --prepare)" --dry-run "${key[@]}"
# Nothing was built or written.
[ ! -e build ] && [ ! -e release ] && [ ! -e "$work/there/new" ]
