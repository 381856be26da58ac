# Tests the Debian packages and their units under a real systemd in separate name spaces: installs,
# starts, disturbs, upgrades, removes and purges them. Sourced by scripts/integration.

name=corvo-integration-$$
kept=/run/$name/upper # files that the system inside has written; readable also after its end

inside() { nsenter --target "$systemd" --mount --net --pid --ipc --uts --cgroup "$@"; }

start_system() {
    systemd=
    "$checkout/scripts/integration.d/systemd_root" $name > "$work/systemd.txt" 2>&1 &
    system_job=$!
    trap end_system EXIT
    await 30 find_systemd && [ -n "$systemd" ] && await 60 inside systemctl is-active --quiet multi-user.target
}

find_systemd() {
    local process
    is_over || { process=$(pgrep -P "$system_job" -x unshare) && systemd=$(pgrep -P "$process" -x systemd); }
}

is_over() { ! kill -0 "$system_job" 2> /dev/null; }

end_system() {
    trap - EXIT
    [ -z "$systemd" ] || is_over || kill -KILL "$systemd" 2> /dev/null || :
    wait "$system_job" || :
    ! mountpoint -q /run/$name || "$checkout/scripts/integration.d/systemd_root" $name end
}

# Creates the surroundings of a camera: partitions, memory card and commands that only record their
# calls. While the file /slow exists, killall takes 2 s, which makes an upgrade slow.
make_camera() {
    inside sh -e << 'END'
mkdir -p /dev/block/by-name /media/mmcblk0p1
mount -t tmpfs card /media/mmcblk0p1
mkdir -p /media/mmcblk0p1/ota
head -c 300000 /dev/urandom > /media/mmcblk0p1/ota/kernel.bin
cp /media/mmcblk0p1/ota/kernel.bin /sent
for name in kernel_a kernel_b nv_factory; do head -c 1000000 /dev/zero > /dev/block/by-name/$name; done
mkdir -p /etc/corvo
printf '%s\n' 'doubled = kernel' 'slot-from = command-line' "word-a = $(cut -d ' ' -f 1 /proc/cmdline)" 'word-b = -' \
    > /etc/corvo/slots.conf
rm -f /commands
for name in reboot fw_printenv killall umount; do
    printf '#!/bin/sh\necho %s "$@" >> /commands\n' $name > /usr/local/sbin/$name
    chmod 755 /usr/local/sbin/$name
done
echo '[ ! -e /slow ] || sleep 2' >> /usr/local/sbin/killall
echo 'echo bootsystem=A' >> /usr/local/sbin/fw_printenv
echo 'exec /usr/bin/umount "$@"' >> /usr/local/sbin/umount
mkdir -p /etc/init.d
printf '#!/bin/sh\necho S99checkboot "$@" >> /commands\n' > /etc/init.d/S99checkboot
chmod 755 /etc/init.d/S99checkboot
END
}

send() { inside otactl send files --dir /media/mmcblk0p1/ota/ kernel; }
main_pid() { inside systemctl show --property MainPID --value "$1"; }
is_active() { inside systemctl is-active --quiet "$@"; }
has_queue() { inside ipcs -q | grep -q 666; }
was_called() { inside grep -q "$1" /commands; }
upgrade_is_running() { inside test -s /tmp/corvo_upgrade.pid; }
state() { inside dpkg-query -W -f '${db:Status-Status}' corvo-upgrade; }

check_installation() {
    check "the packages are installed" inside dpkg -i "${packages[@]}"
    check "the units are enabled" inside systemctl is-enabled corvo-upgrade corvo-system-call
    check "both run" await 5 is_active corvo-upgrade corvo-system-call
    check "the service waits for a request" await 5 has_queue
    check "the daemon was started first" started_in_order corvo-system-call
    check "systemd-analyze verify is silent" no_output inside systemd-analyze verify \
        /usr/lib/systemd/system/corvo-{upgrade,system-call,slots}.service
    check "the partition with two copies was linked before the service started" started_in_order corvo-slots
    check "the service's exposure is at most 3.5" exposure_at_most corvo-upgrade 35
    check "the daemon's exposure is at most 9.3" exposure_at_most corvo-system-call 93
    check "manual pages and completion are installed" inside test -e /usr/share/man/man1/otactl.1.gz \
        -a -e /usr/share/man/man8/hal_tool.8.gz -a -e /usr/share/bash-completion/completions/otactl
}

# Tests the agent's unit without an update server: user, permissions, files, restart and exit.
check_agent() {
    local verify=(systemd-analyze verify /usr/lib/systemd/system/corvo-agent.service)
    [ -e "$work/pki/root.pem" ] || "$checkout/scripts/make_pki" "$work/pki" > /dev/null
    check "the agent is installed" inside dpkg -i "$agent_package"
    check "without settings the agent is not started" fails is_active corvo-agent
    check "systemd-analyze verify is silent about the agent's unit" no_output inside "${verify[@]}"
    check "the agent's exposure is at most 2.5" exposure_at_most corvo-agent 25
    inside sh -c "mkdir -p /etc/corvo && cp $work/pki/root.pem /etc/corvo/keyring.pem
        printf 'server = https://127.0.0.1:1\nkeyring = /etc/corvo/keyring.pem\n' > /etc/corvo/agent.conf
        printf 'compatible = R5C20\nversion-file = none\n' >> /etc/corvo/agent.conf"
    check "with settings the agent starts" inside systemctl start corvo-agent
    check "the agent polls" await 10 inside test -e /run/corvo-agent/status.json
    check "process and folders belong to the agent's user" owned_by corvo-agent "/proc/$(main_pid corvo-agent)" /run/corvo-agent /config/agent \
        /media/mmcblk0p1/ota/agent
    check "the agent's group may read flash, but not write it (udev rule)" reads_flash
    check "the lock file of the boot environment belongs to root" owned_by root /var/lock/fw_printenv.lock
    check "root and the agent can both write that lock file" lock_is_shared
    check "the package can be installed again" inside dpkg -i "$agent_package"
    check "the agent runs after that" await 10 is_active corvo-agent
    check_sleep
    inside sh -c 'echo "window = noon" >> /etc/corvo/agent.conf'
    inside systemctl restart corvo-agent || :
    check "a wrong setting ends the agent without a restart" await 10 says 64 inside systemctl show --property ExecMainStatus corvo-agent
    check "the journal names the wrong setting" says 'window: must be HH:MM' inside journalctl --no-pager --unit corvo-agent
    check "the agent is purged" inside dpkg -P corvo-agent
    check "no file of the agent is left" no_output inside find /usr /etc /var/lib /config -name '*corvo?agent*' -newer /sent
}

# Tests the unit of corvo_commit: the systems of this camera are slot A on trial, with the real tools of the
# boot environment.
check_commit() {
    inside sh -e << 'END'
for name in fw_printenv reboot; do mv /usr/local/sbin/$name /$name.kept; done
printf '#!/bin/sh\necho restart >> /restarts\n' > /usr/local/sbin/reboot
chmod 755 /usr/local/sbin/reboot
head -c 32768 /dev/zero > /environment
printf '/environment 0x0 0x4000\n/environment 0x4000 0x4000\n' > /etc/fw_env.config
printf 'bootsystem=A\nboot_loader_saved=1\nupgrade_available=1\n' > /initial
fw_setenv -f /initial bootcount 1 2> /dev/null
printf 'word-a = %s\nword-b = -\nhealth-command = sleep 30\n' "$(cut -d ' ' -f 1 /proc/cmdline)" > /etc/corvo/commit.conf
END
    check "corvo-commit is installed" inside dpkg -i "$checkout"/build/packages/corvo-commit_*_amd64.deb
    check "its unit is enabled, and not started by the installation" says inactive inside sh -c \
        'systemctl is-enabled corvo-commit && systemctl is-active corvo-commit'
    check "systemd-analyze verify is silent about it" no_output inside systemd-analyze verify \
        /usr/lib/systemd/system/corvo-commit.service
    inside systemctl start corvo-commit
    check "a trial begins" await 10 says "starts 1" inside corvo_commit status
    inside systemctl stop corvo-commit
    check "a stop is not counted as a failed start" says "starts 0" inside corvo_commit status
    check "the boot loader's count is taken back" says bootcount=0 inside fw_printenv bootcount
    inside sed -i '/health-command/d' /etc/corvo/commit.conf
    check_boot_complete
    check "corvo-commit is purged" inside dpkg -P corvo-commit
    check "no file of it is left" no_output inside find /usr /etc /var/lib /config -name '*corvo?commit*' -newer /sent
    inside sh -c 'for name in fw_printenv reboot; do mv /$name.kept /usr/local/sbin/$name; done'
}

check_boot_complete() {
    inside sh -c 'echo "deadline = 3" >> /etc/corvo/commit.conf
        cd /etc/systemd/system && mkdir boot-complete.target.requires
        printf "[Unit]\nBefore=boot-complete.target\n[Service]\nType=oneshot\nExecStart=test -e /well\n" > health.service
        ln -s ../health.service boot-complete.target.requires/
        systemctl daemon-reload && systemctl stop boot-complete.target && systemctl start corvo-commit'
    check "a failed unit before boot-complete.target is a return" await 20 says "bootsystem=B" inside fw_printenv bootsystem
    check "the restart is requested" await 10 inside test -e /restarts
    inside sh -c 'touch /well && fw_setenv upgrade_available 1 && fw_setenv bootsystem A && rm -r /config/commit
        systemctl start corvo-commit'
    check "after boot-complete.target the system is committed" await 10 says "upgrade_available=0" inside fw_printenv upgrade_available
    inside sh -c 'rm -r /etc/systemd/system/boot-complete.target.requires /etc/systemd/system/health.service; systemctl daemon-reload'
}

# Between two polls the agent's process executes a smaller program, corvo_agent_sleeper, under the same
# restrictions.
check_sleep() {
    local process server
    inside "$checkout/scripts/integration.d/idle_update_server" /idle_server > "$work/server.txt" 2>&1 &
    server=$!
    await 10 inside test -s /idle_server || :
    inside sed -i "s#^server = .*#server = $(inside cat /idle_server)#" /etc/corvo/agent.conf
    inside systemctl restart corvo-agent
    process=$(main_pid corvo-agent)
    check "between polls the agent is the sleeper" await 10 inside test "/proc/$process/exe" -ef /usr/sbin/corvo_agent_sleeper
    inside systemctl kill --signal HUP corvo-agent
    check "a signal wakes the agent" await 10 says_twice "GET .*/controller/" "$work/server.txt"
    check "the agent sleeps again" await 10 inside test "/proc/$process/exe" -ef /usr/sbin/corvo_agent_sleeper
    check "its process id is the same" test "$(main_pid corvo-agent)" = "$process"
    kill "$server"
}

says_twice() { # PATTERN FILE
    [ "$(grep -c "$1" "$2")" = 2 ]
}

owned_by() { # USER PATH...
    [ "$(inside stat -c %U "${@:2}" | sort -u)" = "$1" ]
}

reads_flash() {
    [ "$(inside id -nG corvo-agent)" = "corvo-agent corvo-flash" ] &&
        [ "$(inside grep -c 'GROUP="corvo-flash", MODE="0640"' /usr/lib/udev/rules.d/60-corvo-flash.rules)" = 2 ]
}

lock_is_shared() {
    local user
    for user in corvo-agent root; do
        inside setpriv --reuid $user --regid $user --init-groups sh -c ': > /var/lock/fw_printenv.lock'
    done
}

started_in_order() { # UNIT; whether it was started before the service
    local unit times=()
    for unit in "$1" corvo-upgrade; do
        times+=("$(inside systemctl show --property ExecMainStartTimestampMonotonic --value $unit)")
    done
    [ "${times[0]}" -lt "${times[1]}" ]
}

says() { # TEXT COMMAND...
    local text
    text=$("${@:2}" 2>&1) || :
    grep -q "$1" <<< "$text" || { echo "$text" && return 1; }
}

no_output() { [ -z "$("$@" 2>&1 | tee /dev/stderr)" ]; }

exposure_at_most() { # UNIT TENTHS
    inside systemd-analyze security --no-pager --threshold="$2" "$1" > /dev/null
}

check_idle() {
    local before
    before=$(main_pid corvo-upgrade)
    check "systemctl stop is refused" says refused inside timeout 20 systemctl stop corvo-upgrade
    check "systemctl restart is refused" says refused inside timeout 20 systemctl restart corvo-upgrade
    check "the service continues to run" test "$(main_pid corvo-upgrade)" = "$before"
    inside kill -KILL "$before" || :
    check "a killed service is started again" await 5 was_restarted corvo-upgrade "$before"
    before=$(main_pid corvo-system-call)
    inside kill -KILL "$before" || :
    check "a killed daemon is started again" await 5 was_restarted corvo-system-call "$before"
    check "the service waits again" await 5 has_queue
    check "no reboot was requested" fails was_called reboot
    check "the service can write /sys/class (GPIO lines of the status LED)" \
        inside nsenter --target "$(main_pid corvo-upgrade)" --mount test -w /sys/class
}

was_restarted() { # UNIT OLD-PROCESS-ID
    local now
    now=$(main_pid "$1") && [ "$now" != 0 ] && [ "$now" != "$2" ] && is_active "$1"
}

# Upgrades and removes the package while the service performs an upgrade.
check_during_upgrade() {
    local before
    before=$(main_pid corvo-upgrade)
    inside touch /slow
    check "a request is posted" send
    check "an upgrade runs" await 10 upgrade_is_running
    check "removal of the package is refused during the upgrade" fails inside dpkg -r corvo-upgrade
    check "the package stays installed" test "$(state)" = installed
    check "the package can be upgraded during the upgrade" inside dpkg -i "$checkout"/build/packages/corvo-upgrade_*_amd64.deb
    check "the upgrade continues" test "$(main_pid corvo-upgrade)" = "$before"
    check "removal is refused also after that" fails inside dpkg -r corvo-upgrade
    inside rm -f /slow || :
    check "the upgrade ends in a reboot" await 60 was_called '^reboot'
    check "the image is in the copy of slot B" inside cmp -n 300000 /sent /dev/block/by-name/kernel_b
    check "the running copy is untouched" inside cmp -n 1000000 /dev/zero /dev/block/by-name/kernel_a
    check "the outcome is recorded" says succeeded inside otactl record
    check "the applications were stopped" was_called '^killall'
    check "the slot was switched" was_called '^S99checkboot systemB'
    check "the memory card is unmounted" fails inside mountpoint -q /media/mmcblk0p1
}

check_removal() {
    inside systemctl start corvo-upgrade 2> /dev/null || :
    await 5 is_active corvo-upgrade || :
    inside rm -f /commands /tmp/corvo_upgrade.pid
    check "the package is removed" inside dpkg -r corvo-upgrade
    check "none of its programs runs" fails inside pgrep -f 'corvo_upgrade|system_call_daemon'
    check "removal requested no reboot" fails test -e "$kept/commands"
    check "the packages are purged" inside dpkg -P corvo-upgrade corvo-upgrade-tools corvo-upgrade-bringup corvo-platform-simulated
    check "no file of the packages is left" no_output inside find /usr /etc /var/lib -name '*corvo?upgrade*' -newer /sent
    check "the outcome record is kept" inside test -e /config/ota_data.dat
}

has_change_log() {
    local deb package
    for deb in "${packages[@]}" $agent_package; do
        package=$(dpkg-deb -f "$deb" Package)
        dpkg-deb --fsys-tarfile "$deb" | tar -xO "./usr/share/doc/$package/changelog.gz" | gzip -dc > "$work/changelog"
        dpkg-parsechangelog --all -l "$work/changelog" > "$work/changes.txt" 2>&1 && ! grep warning "$work/changes.txt" || return 1
        diff <(sed -n 's/^## \[\([0-9.]*\)\].*/\1/p' "$checkout/CHANGELOG.md") \
            <(sed -n 's/^corvo-upgrade (\([0-9.]*\)) .*/\1/p' "$work/changelog") || return 1
        [ "$(grep -c '^- ' "$checkout/CHANGELOG.md")" = "$(grep -c '^  \* ' "$work/changelog")" ] || return 1
    done
}

contained_in() { # PACKAGE FILE
    local deb
    for deb in "${packages[@]}" $agent_package; do
        [[ $(dpkg-deb -c "$deb") != *"$2"* ]] || dpkg-deb -f "$deb" Package
    done > "$work/owners.txt"
    [ "$(cat "$work/owners.txt")" = "$1" ]
}

# Every option and command in the help text of a program must be in its manual page, and must be
# completed.
check_pages() {
    local program page
    for program in otactl system_call_daemon hal_tool corvo_commit ${agent_package:+corvo_agent}; do
        page=$(gzip -dc "$checkout/build/papers/$program".[18].gz | man --warnings -l - 2> "$work/page.txt" | col -b)
        check "the manual page of $program has no errors" test ! -s "$work/page.txt"
        check "the manual page of $program lists every option" has_all_options "$page" "$program"
    done
    check "completion offers commands and options" "$checkout/scripts/integration.d/completion"
}

has_all_options() { # PAGE PROGRAM [COMMAND...]
    local help word
    help=$("$checkout/build/package-amd64/$2" "${@:3}" --help)
    for word in $(grep -oE -- '--[a-z-]+' <<< "$help"; sed -n '/^Subcommands:/,/^$/s/^  \([a-z][^ ]*\).*/\1/p' <<< "$help"); do
        grep -qE -- "^ +(-[a-z],)?$word([ =]|$)" <<< "$1" || { echo "${*:2}: $word is missing"; return 1; }
        [[ $word == -* ]] || [ "$2" = hal_tool ] || has_all_options "$@" "$word" || return 1
    done
}

# The tests below need a new system each, because the shutdown ends it.
check_shutdown_idle() {
    start_system && make_camera && inside dpkg -i "${packages[@]}" > /dev/null 2>&1
    await 5 has_queue || :
    # A pid file of another user and an empty request must not count as a running upgrade.
    inside sh -c "echo $(main_pid corvo-upgrade) > /tmp/corvo_upgrade.pid && chown nobody /tmp/corvo_upgrade.pid"
    inside perl -e 'msgsnd($ARGV[0], pack("l!", 1), 0) or die' "$(inside ipcs -q | awk '/666/ { print $2 }')" || :
    await 5 inside grep -q " $(main_pid corvo-upgrade) " /proc/sysvipc/msg || :
    sleep 6
    inside systemctl --no-block start poweroff.target
    check "an idle system shuts down within 15 s" await 15 is_over
    check "the service requested no reboot" fails grep -q reboot "$kept/commands"
    end_system
}

check_shutdown_during_upgrade() {
    start_system && make_camera && inside dpkg -i "${packages[@]}" > /dev/null 2>&1
    await 5 has_queue || :
    inside touch /slow
    send > /dev/null
    await 10 upgrade_is_running || :
    inside systemctl --no-block start poweroff.target
    inside rm -f /slow || :
    check "a shutdown during an upgrade completes" await 60 is_over
    check "the shutdown waited for the end of the upgrade" grep -q '^reboot' "$kept/commands"
    check "the outcome is a success" says succeeded "$checkout/build/package-amd64/otactl" record "$kept/config/ota_data.dat"
    end_system
}

check_without_daemon() {
    start_system && make_camera && inside dpkg --unpack "${packages[@]}" > /dev/null 2>&1
    inside rm /usr/sbin/system_call_daemon
    inside dpkg --configure -a > /dev/null 2>&1
    check "without the daemon the service also waits for a request" await 30 has_queue
    check "without the daemon the service runs" is_active corvo-upgrade
    end_system
}

run_debian() {
    "$checkout/scripts/install_packages" integration
    run_logged "$work/package.txt" "building the packages" "$checkout/scripts/package"
    packages=("$checkout"/build/packages/corvo-{upgrade*,platform-simulated}_*_amd64.deb)
    agent_package=$(ls "$checkout"/build/packages/corvo-agent_*_amd64.deb 2> /dev/null) || :
    check "lintian reports nothing" no_output lintian --allow-root --fail-on error "$checkout"/build/packages/*.deb
    check "the change log has every version of CHANGELOG.md" has_change_log
    check "only the package of the simulation contains a platform library" contained_in corvo-platform-simulated libktmosaic
    check_pages
    if ! start_system; then
        end_system
        skip "the units and packages under systemd: $(tail -n 1 "$work/systemd.txt")"
        return 0
    fi
    make_camera
    check_installation
    [ -z "$agent_package" ] || check_agent
    check_commit
    check_idle
    check_during_upgrade
    check_removal
    end_system
    check_shutdown_idle
    check_shutdown_during_upgrade
    check_without_daemon
}
