# Builds the rollout server and fetches nginx. Sourced by scripts/fleet and scripts/bench in the folder of
# the checkout; they define $work, $jar, fail and skip.

build_server() {
    local input newest=
    scripts/install_packages fleet_server || skip "Java and Maven cannot be installed here"
    for input in sim/fleet/server/pom.xml sim/fleet/server/src/main/java/corvo/fleet/*.java; do
        [ "$input" -ot "$jar" ] || newest=$input
    done
    [ -n "$newest" ] || return 0
    echo "building the rollout server (the first time: about a minute)"
    # A failed download of libraries is no error of this project, so it only skips the run.
    if ! mvn --batch-mode -f sim/fleet/server/pom.xml -Dfleet.build="$work/server" package > "$work/maven.txt" 2>&1; then
        ! grep -q "COMPILATION ERROR" "$work/maven.txt" || fail "the server does not build, see $work/maven.txt"
        skip "the server's libraries cannot be downloaded, see $work/maven.txt"
    fi
}

# nginx is only unpacked: installing the package would start a web server on this machine.
unpack_nginx() {
    nginx=$work/nginx/usr/sbin/nginx
    [ ! -x "$nginx" ] || return 0
    rm -rf "$work/nginx"
    mkdir -p "$work/nginx"
    echo "fetching nginx"
    (cd "$work/nginx" && apt-get download nginx && dpkg-deb -x nginx_*.deb .) > "$work/nginx.txt" 2>&1 ||
        skip "nginx cannot be downloaded, see $work/nginx.txt"
}
