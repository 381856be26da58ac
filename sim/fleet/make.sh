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

# These are only unpacked: installing the packages would start a web server and a database on this machine.
unpack_packages() { # NAME PACKAGE...: into $work/NAME
    rm -rf "${work:?}/$1"
    mkdir -p "$work/$1"
    echo "fetching $1"
    (cd "$work/$1" && apt-get download "${@:2}" && for deb in *.deb; do dpkg-deb -x "$deb" .; done) \
        > "$work/$1.txt" 2>&1 || skip "$1 cannot be downloaded, see $work/$1.txt"
}
unpack_nginx() {
    nginx=$work/nginx/usr/sbin/nginx
    [ -x "$nginx" ] || unpack_packages nginx nginx
}
# Their other libraries come with curl's and cmake's.
unpack_postgresql() {
    local server
    postgresql=$work/postgresql
    [ -e "$postgresql/usable" ] && [ -n "$(compgen -G "$postgresql/usr/lib/postgresql/*/bin/psql")" ] || {
        server=$(apt-cache depends postgresql | sed -n 's/.*Depends: \(postgresql-[0-9]*\)$/\1/p')
        unpack_packages postgresql ${server:-postgresql} ${server/postgresql/postgresql-client} libpq5
        LD_LIBRARY_PATH=$(echo "$postgresql"/usr/lib/*/libpq.so.5 | xargs dirname) \
            "$postgresql"/usr/lib/postgresql/*/bin/postgres --version >> "$work/postgresql.txt" 2>&1 ||
            skip "PostgreSQL does not run here, see $work/postgresql.txt"
        touch "$postgresql/usable"
    }
}
