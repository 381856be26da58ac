# Tests the init scripts with Debian's dash and busybox's ash and the real programs in a private root.
# Sourced by scripts/integration.

build_programs() {
    cd "$checkout"
    cmake --preset release
    cmake --build --preset release --target corvo_upgrade system_call_daemon otactl corvo_commit \
        $(! grep -qx 'CORVO_BUILD_AGENT:BOOL=ON' build/release/CMakeCache.txt || echo corvo_agent)
}

run_sysv() {
    local shell
    "$checkout/scripts/install_packages" integration
    run_logged "$work/build.txt" "building the programs" build_programs
    for shell in dash "busybox ash"; do
        check "the init scripts with $shell" "$checkout/scripts/private_root" \
            bash "$checkout/scripts/integration.d/sysv_inside" "$shell"
    done
}
