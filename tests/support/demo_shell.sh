# What is typed into the shell of scripts/demo --shell: an upgrade, and one more when the camera is up
# again.
set -e
upgrade() {
    head -c 50000 /dev/urandom > /tmp/kernel
    cp /tmp/kernel /media/mmcblk0p1/ota/kernel.bin
    otactl send files --dir /media/mmcblk0p1/ota/ --unsigned kernel --follow
    head -c 50000 /dev/block/by-name/kernel | cmp - /tmp/kernel
    otactl record | grep -q succeeded
}
comes_up() {
    for attempt in $(seq 200); do
        sleep 0.1
        ! ipcs -q | grep -q ^0x || ! pidof -q lumo_daemon.sh KvsLumo || return 0
    done
    return 1
}
upgrade
comes_up
upgrade
comes_up
echo "two upgrades, two restarts"
