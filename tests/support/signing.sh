# Sourced before each row of cases/signed.txt: creates the keys of a manufacturer and of others, a camera with
# a running system, and in /run/w a package for it in both forms, anew for each row.
pki=/run/pki
image=/dev/block/by-name

issue() { # NAME EXTENSIONS [ARGUMENT of openssl ca...]; issues another certificate of the authority
    printf '[%s]\n%s\n' "$1" "$2" | cat pki.cnf - > "$1.cnf"
    openssl req -config pki.cnf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
        -keyout "$1.key" -subj "/CN=$1" -out "$1.csr"
    name=$1
    shift 2
    openssl ca -config "$name.cnf" -batch -notext -extensions "$name" -in "$name.csr" \
        -out "$name.pem" "$@"
}

make_people() {
    signer='keyUsage = critical, digitalSignature
extendedKeyUsage = critical, codeSigning'
    "$TEXTS/../scripts/make_pki" $pki
    "$TEXTS/../scripts/make_pki" $pki/foreign
    cd $pki
    issue mailer 'extendedKeyUsage = emailProtection'
    issue anybody ''
    issue cipherer 'keyUsage = keyEncipherment
extendedKeyUsage = codeSigning'
    issue expired "$signer" -startdate 200101000000Z -enddate 210101000000Z
    issue thief "$signer"
    openssl ca -config pki.cnf -revoke thief.pem
    openssl ca -config pki.cnf -gencrl -crldays 1 -out revoked.pem
    # Keys of types that cameras do not accept.
    for kind in rsa-pss ed25519; do
        openssl genpkey -algorithm $kind -out $kind.key
        openssl req -config pki.cnf -new -key $kind.key -subj /CN=$kind -out $kind.csr
        openssl ca -config pki.cnf -batch -notext -extensions signer -in $kind.csr -out $kind.pem
    done
    # A web server's certificate, from an authority that the host trusts.
    openssl req -config pki.cnf -x509 -extensions root -newkey ec -pkeyopt ec_paramgen_curve:P-256 \
        -nodes -keyout public.key -subj "/CN=Public root" -out public.pem
    printf 'subjectAltName = DNS:web.example\nextendedKeyUsage = serverAuth\n' > web.cnf
    openssl req -config pki.cnf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout web.key \
        -subj /CN=web.example -out web.csr
    openssl x509 -req -in web.csr -CA public.pem -CAkey public.key -extfile web.cnf -out web.pem
    mkdir /run/trusted
    cp public.pem "/run/trusted/$(openssl x509 -in public.pem -noout -hash).0"
    # An expired certificate of the authority.
    openssl ca -config pki.cnf -cert root.pem -keyfile root.key -batch -notext -extensions authority \
        -startdate 200101000000Z -enddate 210101000000Z -in authority.csr -out old.pem
    # A key that is too short, and an authority that is restricted to mail.
    openssl req -config pki.cnf -newkey rsa:1024 -nodes -keyout weak.key -subj /CN=weak -out weak.csr
    openssl ca -config pki.cnf -batch -notext -extensions signer -in weak.csr -out weak.pem
    printf '[mail]\nbasicConstraints = CA:true\nextendedKeyUsage = emailProtection\n' > mail.cnf
    openssl x509 -req -in authority.csr -CA root.pem -CAkey root.key -extfile mail.cnf \
        -extensions mail -out mail.pem
}

make_good() {
    mkdir -p /run/good /etc/corvo
    cd /run/good
    seq 40000 | head -c 200001 > kernel.bin
    seq 600 > rootfs.img
    echo 2.7.0 > /etc/version
    cp kernel.bin rootfs.img /run/
    pack
    printf '# what this camera takes\nkeyring = %s\ncompatible = R5C20\nversion-file = /etc/version\n' \
        $pki/root.pem > /etc/corvo/otactl.good
}

key="--key $pki/signer.key --certificate $pki/signer.pem --intermediate $pki/authority.pem"
head="--compatible R5C20 --version 2.7.1"
pack() { # [ARGUMENT...]; default: R5C20 2.7.1, signed by the signer
    set -- ${*:-$head $key}
    otactl pack files --dir . "$@" > /dev/null &&
        otactl pack --output all.pkg --manifest all.manifest rootfs=rootfs.img kernel=kernel.bin \
            "$@" > /dev/null
}

# Signs the manifest with the openssl command and the key of NAME.
as() { # NAME [ARGUMENT...]
    by=$1
    shift
    openssl cms -sign -binary -in package.manifest -signer "$pki/$by.pem" -inkey "$pki/$by.key" \
        -certfile $pki/authority.pem -outform DER -out package.manifest.sig "$@"
}

# Checks the package as a camera whose clock shows this date.
at() { # DATE ARGUMENTS OF verify...
    seconds=$(date -d "$1" +%s)
    shift
    CORVO_TIME=$seconds otactl_with_faults verify package.manifest "$@" > /run/said 2>&1
    code=$?
    grep -e ^otactl -e '^this camera' /run/said
    return $code
}

# The commands of a page, by number of their block, or one command, by words in its first line.
block_of() { # PAGE NUMBER
    awk -v wanted="$2" '/^ *```/ { inside = /sh$/ && ++n == wanted; next } inside' "$TEXTS/../docs/$1.md"
}
command_of() { # PAGE WORDS
    awk -v words="$2" 'index($0, words) { inside = 1 } inside { print } !/(\\|&&|\|)$/ { inside = 0 }' \
        "$TEXTS/../docs/$1.md"
}

# Runs the commands, without passwords for keys and without questions. Ends the shell if one fails.
type_in() { # COMMANDS
    openssl() {
        case $1 in
            req) set -- "$@" -nodes ;;
            ca) set -- "$@" -batch ;;
        esac
        command openssl "$@" 2> /tmp/openssl.txt
    }
    set -e
    eval "$1" > /dev/null
    set +e
    unset -f openssl
}

# Runs the commands of docs/signing.md: keys, a signature of the manifest, and a list that revokes its signer.
by_page() {
    cp $pki/pki.cnf .
    type_in "$(block_of signing 1)"
}

# Checks a signature with the commands of the pages and with scripts/release, on a host that trusts the public
# root. The control is the first page's command without the options that exclude this root.
check_by_page() { # ARGUMENT of as...
    export SSL_CERT_DIR=/run/trusted SSL_CERT_FILE=$pki/public.pem
    cp $pki/root.pem $pki/revoked.pem .
    sha256sum kernel.bin > package.manifest
    ln -s kernel.bin a-link
    as "$@"
    cp package.manifest SHA256SUMS
    cp package.manifest.sig SHA256SUMS.sig
    for page in signing releasing; do
        (type_in "$(command_of $page 'cms -verify')")
        echo "$page.md $?"
    done
    (type_in "$(command_of releasing 'otactl verify-file')")
    echo "verify-file $?"
    "$TEXTS/../scripts/release" --check . --keyring root.pem
    (type_in "$(command_of signing 'cms -verify' | sed 's/-no-CA[a-z]*//g; s/-signer.*//; /x509/d')")
    echo "control $?"
}

send() { otactl send files --dir . "$@"; }
send_all() { otactl send combined --package all.pkg --manifest all.manifest "$@"; }

# Prints the matching lines of a command's output and returns the command's exit status.
only() { # PATTERN COMMAND...
    pattern=$1
    shift
    "$@" > /tmp/said
    code=$?
    grep "$pattern" /tmp/said
    return $code
}

# Runs a command with a token that contains the signer's key.
token() { # COMMAND...
    SOFTHSM2_CONF=/run/softhsm.conf PKCS11_MODULE_PATH=/usr/lib/softhsm/libsofthsm2.so
    ASAN_OPTIONS=detect_leaks=0 # the engine leaks memory when it fails
    export SOFTHSM2_CONF PKCS11_MODULE_PATH ASAN_OPTIONS
    if ! [ -d /run/tokens ]; then
        mkdir /run/tokens
        echo "directories.tokendir = /run/tokens" > $SOFTHSM2_CONF
        printf 1234 > /run/pin
        softhsm2-util --init-token --free --label corvo --pin 1234 --so-pin 5678 > /dev/null
        softhsm2-util --import $pki/signer.key --token corvo --label signer --id 01 --pin 1234 > /dev/null
    fi
    "$@"
}

# Changes one byte of a file.
spoil() { # FILE OFFSET
    byte=$(tail -c +$(($2 + 1)) "$1" | head -c 1 | tr '\0-\376\377' '\1-\377\0')
    printf %s "${byte:-z}" | dd of="$1" bs=1 seek="$2" conv=notrunc 2> /dev/null
}

# Changes the content type in a signature, in the part that is not signed.
retype() { # LAST-BYTE of the type
    at=$(grep -obUaP "\x2a\x86\x48\x86\xf7\x0d\x01\x07\x$1" package.manifest.sig | head -n 1)
    spoil package.manifest.sig $((${at%%:*} + 8))
}

# Runs otactl with faults, and checks that it leaves no additional descriptors open.
failing() { # FAULTS COMMAND...
    export CORVO_FAULTS=none:1:0:0
    otactl_with_faults --help > /dev/null
    read -r _ before < /tmp/faults_report
    CORVO_FAULTS=$1
    shift
    "$@"
    code=$?
    read -r _ after < /tmp/faults_report
    [ "$after" = "$before" ] || echo "$((after - before)) more descriptors are open"
    return $code
}

# Makes the package anew with an image that is chunked, and removes the image.
chunked() {
    if ! [ -d /run/chunked ]; then
        cp -r /run/good /run/chunked
        seq 200000 > /run/chunked/kernel.bin
        (cd /run/chunked && otactl pack files --dir . --chunked $head $key > /dev/null && mv kernel.bin /run/whole.bin)
    fi
    cp /run/chunked/* .
    rm -f kernel.bin
    head -c 2000000 /dev/zero > $image/kernel
}

# Checks packages with a chunked image that the maker has signed with an error.
wrong() { # CHANGE..., see chunked.py
    for change; do
        chunked
        python3 "$TEXTS/support/chunked.py" edit kernel.bin "$change"
        as signer
        otactl verify .
    done
}

if ! [ -d /run/good ]; then
    (make_people) > /tmp/people.txt 2>&1 || cat /tmp/people.txt
    (make_good)
fi
rm -rf /run/w
cp -r /run/good /run/w
cp /etc/corvo/otactl.good /etc/corvo/otactl.conf
head -c 300000 /dev/zero > $image/kernel
head -c 4000 /dev/zero > $image/rootfs
cd /run/w
