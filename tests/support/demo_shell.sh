# Input for the shell of scripts/demo --shell: an upgrade, and another one after the restart of the camera.
set -e
upgrade() { # PARTITION that is expected to be written
    make_image 2.0 50000 > /tmp/kernel
    cp /tmp/kernel /media/mmcblk0p1/ota/kernel.bin
    otactl send files --dir /media/mmcblk0p1/ota/ --unsigned kernel --follow
    head -c 50000 /dev/block/by-name/$1 | cmp - /tmp/kernel
    otactl record | grep -q succeeded
}
wait_for_restart() {
    for attempt in $(seq 200); do
        sleep 0.1
        ! ipcs -q | grep -q ^0x || ! pidof -q lumo_daemon.sh KvsLumo || return 0
    done
    return 1
}
upgrade kernel_b
wait_for_restart
upgrade kernel_a
wait_for_restart
echo "two upgrades, two restarts"
