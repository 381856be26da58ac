# Tests the buildroot package without a buildroot tree: Config.in with a kconfig parser, the makefile
# with make and a small replacement for buildroot's package infrastructure. Sourced by
# scripts/integration.

run_buildroot() {
    local package=$checkout/packaging/buildroot/corvo-upgrade
    "$checkout/scripts/install_packages" integration
    check "the kconfig file" /usr/bin/python3 "$checkout/scripts/integration.d/kconfig.py" "$package/Config.in"
    check "the makefile while the package is off" makefile_prints "$work/nothing" "site /"
    check "the makefile with a source folder" makefile_prints "$checkout" "site $checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "a slash at the end of the source folder is removed" makefile_prints "$checkout/" "site $checkout " BR2_PACKAGE_CORVO_UPGRADE=y
    check "a build without a source folder is refused" makefile_prints "" "must name a checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "a source folder that is not a checkout is refused" makefile_prints /usr "must name a checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "targets that build nothing work without a source folder" makefile_prints "" "site /" BR2_PACKAGE_CORVO_UPGRADE=y
    check "OVERRIDE_SRCDIR replaces the source folder" makefile_prints "" "dependencies host-pkgconf nanomsg " \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y CORVO_UPGRADE_OVERRIDE_SRCDIR=/elsewhere
    check "a manufacturer's library and the tools" makefile_prints "$checkout" \
        "-DCORVO_PLATFORM_LIBRARY=/maker/libktmosaic.so -DCORVO_BUILD_TOOLS=ON -DCORVO_BUILD_AGENT=OFF dependencies host-pkgconf nanomsg cli11 json-for-modern-cpp openssl zstd " \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y 'BR2_PACKAGE_CORVO_UPGRADE_PLATFORM_LIBRARY="/maker/libktmosaic.so"'
    check "the units of the tools" makefile_prints "$checkout" "corvo-system-call.service" \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y
    check "without the tools, the unit of the daemon is not installed" fails makefile_prints "$checkout" corvo-system-call.service
    check "the agent" makefile_prints "$checkout" \
        "-DCORVO_BUILD_AGENT=ON dependencies host-pkgconf nanomsg cli11 json-for-modern-cpp openssl zstd libcurl " \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "the agent's unit" makefile_prints "$checkout" corvo-agent.service BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "the agent's user" makefile_prints "$checkout" "corvo-agent -1 corvo-agent -1 * - - corvo-flash " BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "without the agent, nothing of it is installed" fails makefile_prints "$checkout" corvo-agent BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y
    check "the unit of corvo_commit" makefile_prints "$checkout" corvo-commit.service BR2_PACKAGE_CORVO_UPGRADE_COMMIT=y
    check "without corvo_commit, its unit is not installed" fails makefile_prints "$checkout" corvo-commit BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y
    check "the kernel gets System V message queues" makefile_prints "$checkout" "enable CONFIG_SYSVIPC"
    check "the simple rules of buildroot's check-package" follows_rules "$package"
    skip "builds in a tree: scripts/buildroot TREE runs them"
}

makefile_prints() { # SOURCE TEXT SETTING...
    cat > "$work/tree.mk" << 'END'
qstrip = $(strip $(subst ",,$(1)))
KCONFIG_ENABLE_OPT = enable $(1)
INSTALL = install
cmake-package = $(info site $(CORVO_UPGRADE_SITE) $(CORVO_UPGRADE_SITE_METHOD))\
    $(info $(CORVO_UPGRADE_CONF_OPTS) dependencies $(CORVO_UPGRADE_DEPENDENCIES) )\
    $(info $(CORVO_UPGRADE_INSTALL_INIT_SYSTEMD))$(info $(CORVO_UPGRADE_USERS))$(info $(CORVO_UPGRADE_LINUX_CONFIG_FIXUPS))
all:
END
    make -s -f "$work/tree.mk" -f "$checkout/packaging/buildroot/corvo-upgrade/corvo-upgrade.mk" \
        "BR2_PACKAGE_CORVO_UPGRADE_SOURCE=\"$1\"" "${@:3}" all 2>&1 | tee "$work/makefile.txt" || :
    grep -qF -- "$2" "$work/makefile.txt"
}

follows_rules() { # FOLDER
    local file
    for file in "$1"/*; do
        ! grep -nE '[[:space:]]$|^ +[^ ]' "$file" || return 1
        [ "$(tail -c 1 "$file" | od -An -c)" = "  \n" ] || { echo "$file: no newline at its end"; return 1; }
    done
    # Help lines have at most 72 columns, where a tab counts as eight.
    ! expand "$1/Config.in" | grep -nE '^          .{63}' || return 1
    # The attributes of an option must be in this order: type, default, depends, select, help.
    awk '/^(config|comment)/ { last = 0 }
        match($1, /^(bool|string|default|depends|select|help)$/) && /^\t[a-z]/ {
            place = index("bool string default depends select help", $1)
            if (place < last) { print FILENAME ": " FNR ": " $0; wrong = 1 }
            last = place
        }
        END { exit wrong }' "$1/Config.in"
}
