# Creates keys, and in /run/packages the packages that the rows of cases/agent_actions.txt name. Argument:
# path of scripts/make_pki.
set -e
[ ! -d /run/packages ] || exit 0
"$1" /run/pki > /dev/null
"$1" /run/foreign > /dev/null
pack() { # NAME VERSION KEYS [IMAGES]
    cp -r ${4:-/run/images} /run/packages/$1
    set -- /run/packages/$1 --compatible R5C20 --version $2 --key $3/signer.key \
        --certificate $3/signer.pem --intermediate $3/authority.pem
    otactl pack files --dir "$@" $more > /dev/null
    folder=$1
    shift
    otactl pack --output $folder/all.pkg --manifest $folder/all.manifest "$@" > /dev/null \
        kernel=/run/images/kernel.bin rootfs=/run/images/rootfs.img
}
mkdir /run/packages
pack files 2.0 /run/pki
pack older 1.8 /run/pki
pack foreign 2.0 /run/foreign
pack large 2.0 /run/pki /run/large
[ ! -d /run/chunked ] || more=--chunked pack chunked 2.0 /run/pki /run/chunked
