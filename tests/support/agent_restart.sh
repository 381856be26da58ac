# What has happened to the camera of one row of cases/agent_actions.txt when it restarts. Arguments:
# the words that describe it, and how often it has restarted.
set -e
echo "$2" > /run/boot_id
case $1:$2 in later*:1) ;; *switched-back*) echo A > /run/slot ;; esac
case $1 in *stopped*) : > /run/stop ;; esac
# The record as it was written by agents that kept only the names of files.
case $1:$2 in *old-record*:1) sed -i -z 's/{[^{}]*"name": \("[^"]*"\)[^{}]*}/\1/g' /config/agent/action.json ;; esac
case $1 in *taken-out*) umount /media/mmcblk0p1 ;; esac
# "two-copies A": the boot loader starts slot A again, although the other slot is selected.
case $1 in
    *two-copies\ A) ;;
    *two-copies*) sh "${0%/*}/two_copies.sh" "$(cat /run/slot)" kernel rootfs ;;
esac
# The boot loader, or corvo_commit, returns to slot A.
returns() {
    sh "${0%/*}/two_copies.sh" "$(cat /run/slot)" kernel rootfs
    echo "$boot-$(cat /run/slot)" > /run/boot_id
    corvo_commit boot >> /run/commit.log 2>&1 || :
}
boot=$2
case $1 in
    *undecided*) ;;
    *on-trial\ falls-back*) printf '%s\n' bootsystem=A rolled_back=B | fw_setenv && returns ;;
    *on-trial\ unhealthy*) returns && returns ;;
    *on-trial*) returns ;;
esac
# Another system is written manually: by each restart, or after the first one.
case $1:$2 in *by-hand*:* | later:[!1]*) head -c 98304 /dev/zero | tr '\0' h > /dev/block/by-name/kernel ;; esac
case $1 in
    *other-version*) ;;
    *long-version*) echo 2.0.0 > /etc/version ;;
    *) [ "$(cat /run/slot)" != B ] || echo 2.0 > /etc/version ;;
esac
# What appears only half a second after the agent has started.
late() { # PATH PLACE-BEFORE
    mv "$1" "$2"
    rm -f /run/agent.pid
    {
        until [ -s /run/agent.pid ]; do sleep 0.02; done
        sleep 0.5
        [ "$(cat /run/boot_id)" != "$boot" ] || mv -T "$2" "$1"
    } > /dev/null 2>&1 < /dev/null &
}
# Only while partitions are half written. Otherwise the agent does not wait for the card, and does not remove the
# package from it before its next start.
case $1:$2 in *late-card*:1) late /media/mmcblk0p1/ota/agent /media/mmcblk0p1/ota/unmounted ;; esac
case $1 in *late-partition*) late /dev/block/by-name/kernel /dev/block/late ;; esac
