# Creates in the folder $1 the certificates of an update server and a camera: the authority ca.pem has issued
# server.pem (localhost), other_host.pem and camera.pem; the authority stranger.pem has issued
# stranger_server.pem. The keys have the suffix .key; locked.key is the camera's key with a password.
set -e
mkdir -p "$1"
cd "$1"
printf '[req]\ndistinguished_name = name\n[name]\n' > tls.cnf
authority() { # NAME
    openssl req -config tls.cnf -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 \
        -subj "/CN=$1" -addext basicConstraints=critical,CA:true -keyout "$1.key" -out "$1.pem"
}
issue() { # NAME AUTHORITY ALTERNATIVE_NAME
    openssl req -config tls.cnf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" \
        -keyout "$1.key" -out "$1.csr"
    echo "subjectAltName = $3" > "$1.ext"
    openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days 30 \
        -extfile "$1.ext" -out "$1.pem"
}
{
    authority ca
    authority stranger
    issue server ca DNS:localhost
    issue other_host ca DNS:elsewhere.example
    issue camera ca DNS:camera.example
    issue stranger_server stranger DNS:localhost
    openssl pkey -in camera.key -aes128 -passout pass:secret -out locked.key
} > log 2>&1 || { cat log; exit 1; }
