# The buildroot package without a buildroot tree: its description through a real kconfig parser, its
# makefile under real make with a stand-in for the tree's package machinery. Sourced by
# scripts/integration.

run_buildroot() {
    local package=$checkout/packaging/buildroot/corvo-upgrade
    "$checkout/scripts/install_packages" integration
    check "the kconfig file" /usr/bin/python3 "$checkout/scripts/integration.d/kconfig.py" "$package/Config.in"
    check "the makefile while the package is off" makefile_says "$work/nothing" "site /"
    check "the makefile with a source folder" makefile_says "$checkout" "site $checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "no slash stays at its end" makefile_says "$checkout/" "site $checkout " BR2_PACKAGE_CORVO_UPGRADE=y
    check "a build without a source folder is refused" makefile_says "" "must name a checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "a source folder of no checkout is refused" makefile_says /usr "must name a checkout" \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y
    check "what only collects data goes on without one" makefile_says "" "site /" BR2_PACKAGE_CORVO_UPGRADE=y
    check "an override serves as one" makefile_says "" "dependencies host-pkgconf nanomsg " \
        BR2_PACKAGE_CORVO_UPGRADE=y BR_BUILDING=y CORVO_UPGRADE_OVERRIDE_SRCDIR=/elsewhere
    check "a maker's library and the tools" makefile_says "$checkout" \
        "-DCORVO_PLATFORM_LIBRARY=/maker/libktmosaic.so -DCORVO_BUILD_TOOLS=ON -DCORVO_BUILD_AGENT=OFF dependencies host-pkgconf nanomsg cli11 json-for-modern-cpp openssl " \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y 'BR2_PACKAGE_CORVO_UPGRADE_PLATFORM_LIBRARY="/maker/libktmosaic.so"'
    check "the units of the tools" makefile_says "$checkout" "corvo-system-call.service" \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y
    check "no daemon's unit without its daemon" fails makefile_says "$checkout" corvo-system-call.service
    check "the agent" makefile_says "$checkout" \
        "-DCORVO_BUILD_AGENT=ON dependencies host-pkgconf nanomsg cli11 json-for-modern-cpp openssl libcurl " \
        BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "its unit" makefile_says "$checkout" corvo-agent.service BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "its user" makefile_says "$checkout" "corvo-agent -1 corvo-agent -1 * - - corvo-flash " BR2_PACKAGE_CORVO_UPGRADE_AGENT=y
    check "nothing of the agent without it" fails makefile_says "$checkout" corvo-agent BR2_PACKAGE_CORVO_UPGRADE_TOOLS=y
    check "what the kernel gets" makefile_says "$checkout" "enable CONFIG_SYSVIPC"
    check "the tree's rules that are easy to state" follows_rules "$package"
    skip "builds in a tree: scripts/buildroot TREE does them where there is one"
}

makefile_says() { # SOURCE TEXT SETTING...
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
        [ "$(tail -c 1 "$file" | od -An -c)" = "  \n" ] || { echo "$file: no end of line"; return 1; }
    done
    # A tab counts for eight.
    ! expand "$1/Config.in" | grep -nE '^          .{63}' || return 1
    # The order of an option's lines.
    awk '/^(config|comment)/ { last = 0 }
        match($1, /^(bool|string|default|depends|select|help)$/) && /^\t[a-z]/ {
            place = index("bool string default depends select help", $1)
            if (place < last) { print FILENAME ": " FNR ": " $0; wrong = 1 }
            last = place
        }
        END { exit wrong }' "$1/Config.in"
}
