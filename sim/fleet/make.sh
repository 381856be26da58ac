# What a rollout server needs. Read by scripts/fleet and scripts/bench, with $work, $jar, fail and skip;
# in the checkout's folder.

build_server() {
    local input newest=
    scripts/install_packages fleet_server || skip "Java and Maven cannot be installed here"
    for input in sim/fleet/server/pom.xml sim/fleet/server/src/main/java/corvo/fleet/*.java; do
        [ "$input" -ot "$jar" ] || newest=$input
    done
    [ -n "$newest" ] || return 0
    echo "putting the rollout server together (the first time: about a minute)"
    # What it cannot fetch it cannot fetch a second time: not this machine's fault, nor ours.
    if ! mvn --batch-mode -f sim/fleet/server/pom.xml -Dfleet.build="$work/server" package > "$work/maven.txt" 2>&1; then
        ! grep -q "COMPILATION ERROR" "$work/maven.txt" || fail "the server does not build, see $work/maven.txt"
        skip "the server's libraries cannot be had here, see $work/maven.txt"
    fi
}

# Unpacked, not installed: the installed package starts a server of its own on this machine.
unpack_nginx() {
    nginx=$work/nginx/usr/sbin/nginx
    [ ! -x "$nginx" ] || return 0
    rm -rf "$work/nginx"
    mkdir -p "$work/nginx"
    echo "fetching nginx"
    (cd "$work/nginx" && apt-get download nginx && dpkg-deb -x nginx_*.deb .) > "$work/nginx.txt" 2>&1 ||
        skip "nginx cannot be had here, see $work/nginx.txt"
}
