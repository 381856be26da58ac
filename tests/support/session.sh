# Sourced before each row of the cases that are shell commands. Starts few processes, because they take most
# of a row's time.
export LC_ALL=C

# Creates a loop device on the file and sets the variable "disk". Other processes use loop devices too: the free
# one may have been created later than this root and have no node here, or be in use by the next command.
attach_loop() { # FILE
    for _ in 1 2 3 4 5 6 7 8 9; do
        disk=$(losetup --find) || return
        [ -b "$disk" ] || mknod "$disk" b 7 "${disk#/dev/loop}"
        losetup "$disk" "$1" 2> /dev/null && return
    done
}

# Runs hal_tool on the partition, after filling it with "o". Sets the variables "code" (the result) and "text"
# (the content of the partition afterwards, and the reported percentages and errors).
write_flash() { # ARGUMENT of hal_tool...
    cp /tmp/old "$partition"
    hal_tool "$@" > /tmp/said 2>&1

    # The number of bytes that are equal to the package from the offset; the rest must be erased.
    differs=$(cmp -i "$skip:0" /tmp/package "$partition" 2>&1)
    text=${differs#*char }
    text=${text#*byte }
    text=${text%%,*}
    case $differs in *differ:*) text=$((text - 1)) ;; esac
    if ! cmp -s -i "$text:0" -n $((164096 - text)) "$partition" "$erased"; then
        cmp -s /tmp/old "$partition" && text=kept || text="$text wrong"
    fi
    while read -r line; do
        case $line in
            *"write flash progress "*) text="$text ${line##*write flash progress }" ;;
            *_M[MT][CD]" "[12]" 4 "*) text="$text ${line#*_M[MT][CD] [12] 4 }" ;;
            *"result "*) code=${line#*result } ;;
            *"left open") text="$text $line" ;;
        esac
    done < /tmp/said
}

# Runs a row of cases/flash.txt: the same write with the driver and with the platform layer.
flash() { # STORAGE HOW OFFSET LENGTH [CALL ORDINAL EFFECT]
    if ! [ -f /tmp/package ]; then
        seq 40000 | head -c 200000 > /tmp/package # without a byte of all zeros or all ones
        head -c 164096 /dev/zero > /tmp/erased_mmc
        tr '\0' '\377' < /tmp/erased_mmc > /tmp/erased_mtd
        tr '\0' o < /tmp/erased_mmc > /tmp/old
        mkdir -p /dev/mtd
        printf 'mtd0: 00028100 00001000 "rootfs"\nmtd12: 00028100 00001000 "root"\n' > /tmp/proc_mtd
    fi
    case $1 in
        mmc) partition=/dev/block/by-name/root storage=33 ;;
        mtd) partition=/dev/mtd/12 storage=17 ;;
    esac
    case $5-$7 in
        cell-) export WORN_CELL="$6" ;;
        *-EIO) export CORVO_FAULTS="$5:$6:5:0" ;;
        *-EINTR) export CORVO_FAULTS="$5:$6:4:0" ;;
        *) export CORVO_FAULTS="$5:$6:0:$7" ;;
    esac
    erased=/tmp/erased_$1
    skip=0
    if [ "$3" -ge 0 ] && [ "$3" -lt 200000 ]; then
        skip=$3
    fi
    if [ "$2" = whole ]; then
        tail -c +$(($3 + 1)) /tmp/package | head -c "$4" > /tmp/image
        write_flash "$1-erase-write" root /tmp/image
        by_driver="$code / $text"
        write_flash pal-ota-upgrade 4 root /tmp/image $storage
    else
        # Positions are signed 32-bit numbers in one driver and unsigned 64-bit numbers in the other.
        case $1 in
            mmc) range="$3 $((($3 + $4 + 0x80000000) % 0x100000000 - 0x80000000))" ;;
            mtd) range=$(printf '%u %u' "$3" "$4") ;;
        esac
        write_flash "$1-erase-write-range" root /tmp/package $range
        by_driver="$code / $text"
        write_flash pal-ota-upgrade-range 4 root /tmp/package \
            $(($3 & 0xffffffff)) $(($4 & 0xffffffff)) $storage
    fi
    echo "${by_driver%% / *}"
    echo "$code"
    echo "$text"
    [ "${by_driver#* / }" = "$text" ] || echo "$by_driver"
}

# Runs a row of cases/upgrade_arguments.txt: an upgrade with a range, then one with the whole image.
upgrade_arguments() { # TYPE NAME IMAGE STORAGE
    printf old > /dev/block/by-name/kernel
    printf new > /tmp/image
    hal_tool pal-ota-upgrade-range "$1" "$2" "$3" 0 3 "$4" > /tmp/said 2> /tmp/result
    hal_tool pal-ota-upgrade "$1" "$2" "$3" "$4" >> /tmp/said 2>> /tmp/result
    sed 's/^result //' /tmp/result
    cat /dev/block/by-name/kernel
    sed -n 's/.* 4 /, /p' /tmp/said | tr -d '\n'
}

# Runs a row of cases/slots.txt on a board with two copies of kernel and rootfs, whose slot A is running: the
# commands of the row, then `corvo_slots link`. Prints its exit status, its output, and where the names lead.
slots() { # COMMAND
    rm -rf /dev/block /run/slots
    mkdir -p /dev/block/by-name /run/slots
    for name in kernel_a kernel_b rootfs_a rootfs_b uboot; do
        : > /run/slots/$name
        ln -s /run/slots/$name /dev/block/by-name/$name
    done
    printf '%s\n' 'doubled = kernel rootfs' 'slot-from = command-line' 'word-a = slot=A' 'word-b = slot=B' 'wait = 0' > $conf
    command_line quiet slot=A
    eval "$1"
    link
    echo "$?"
    for name in kernel rootfs; do
        for folder in by-name running; do
            echo "$folder/$name $(readlink /dev/block/$folder/$name || echo -)"
        done
    done | grep -v ' -' | sed 's#/run/slots/##'
}
link() { corvo_slots link --config $conf; }
corvo_slots() { $shell "$TEXTS/../packaging/corvo_slots" "$@"; }
command_line() { # WORD...
    echo "$*" > /run/command_line
    [ "$(cat /proc/cmdline)" = "$*" ] || mount --bind /run/command_line /proc/cmdline
}
setting() { # NAME [VALUE]; without a value the line is removed
    sed -i "/^$1 /d" $conf
    [ $# = 1 ] || echo "$1 = $2" >> $conf
}
# A file system on the block device that is a copy of rootfs, without a real disk: a node with its number.
mount_root() { # COPY
    while umount /run/root 2> /dev/null; do :; done
    mkdir -p /run/root
    mount -t tmpfs root /run/root
    setting slot-from root-device
    setting root-folder /run/root
    number=$(mountpoint -d /run/root)
    rm /run/slots/$1
    mknod /run/slots/$1 b ${number%:*} ${number#*:}
}

# Runs a row of cases/boot_loader.txt on a camera with two copies of kernel and rootfs, whole systems 1.0 in slot A
# and 2.0 in slot B: the command of the row, then the boot loader. Prints its output, its exit status, and the
# variables of the boot environment afterwards.
boots() { # COMMAND
    rm -rf /dev/block
    mkdir -p /dev/block/by-name
    for name in kernel rootfs; do
        echo "1.0 5 $(printf %s "$name" | head -c 5 | sha256sum | cut -c 1-64)" > /dev/block/by-name/${name}_a
        sed s/1.0/2.0/ /dev/block/by-name/${name}_a > /dev/block/by-name/${name}_b
        echo $name | tee -a /dev/block/by-name/${name}_a >> /dev/block/by-name/${name}_b
    done
    printf '/run/environment 0x0 0x1000\n/run/environment 0x1000 0x1000\n' > /etc/fw_env.config
    head -c 8192 /dev/zero > /run/environment
    echo bootsystem=A > /run/initial
    fw_setenv -f /run/initial bootsystem A 2> /dev/null
    look=
    eval "$1"
    $shell "$TEXTS/../sim/boot_loader" $look kernel rootfs
    echo $?
    fw_printenv
}
variables() { printf '%s\n' "$@" | fw_setenv -s -; } # NAME=VALUE...
on_trial() { variables bootsystem=B upgrade_available=1 bootcount=$1 bootlimit=3 boot_loader_saved=1; }
tear() { for name; do printf x | dd of=/dev/block/by-name/$name bs=1 seek=75 conv=notrunc 2> /dev/null; done; }

# Called before each row of cases/agent_camera.txt: ends the earlier process and removes the pid file.
camera() {
    cd /run
    file=/tmp/corvo_upgrade.pid
    [ ! -e started ] || kill "$(cat started)"
    rm -rf started $file other
    [ ! -e raised ] || return 0
    mkdir named
    install -m 755 /usr/bin/sleep corvo_upgrade
    install -m 6755 /usr/bin/sleep raised
}

# Starts a process that sleeps and sets the variable "pid".
process() { # COMMAND...
    "$@" 60 < /dev/null > /dev/null 2>&1 &
    pid=$!
    echo $pid > started
    until [ "$(cat /proc/$pid/comm)" != sh ] && [ "$(cat /proc/$pid/comm)" != setpriv ]; do :; done
}
as_user() { exec setpriv --reuid 990 --regid 990 --clear-groups "$@"; }

# Runs a row of cases/agent_prepare.txt: the command, then the program; prints the files afterwards.
prepare() { # COMMAND
    umount /run/new/agent 2> /dev/null
    rm -rf /run/new /run/victim /var/lock/fw_printenv.lock
    mkdir -p /run/victim/folder
    echo secret > /run/victim/file
    : > /run/victim/empty
    chmod 600 /run/victim/*
    eval "$1"
    if [ -n "$swapping" ]; then
        # At most 1000 times: an emulated program takes longer to start.
        timeout 8 sh -c 'for i in $(seq 1000); do corvo_agent_prepare nobody /run/new/agent; done' > /dev/null 2>&1
        kill $swapping
        wait $swapping 2> /dev/null
        swapping=
    else
        status=0
        corvo_agent_prepare nobody /run/new/agent > /run/said 2>&1 || status=$?
        echo $status
        cat /run/said
        stat -c '%U %G %a %F' /run/new/agent /run/new/agent/lock /var/lock/fw_printenv.lock 2>&1 |
            sed 's/.*No such.*/-/'
    fi
    stat -c '%U %G %a' /run/victim /run/victim/* | sort | uniq -c | tr -s ' '
    ls /run/victim | wc -l
}

# Alternates between a link and what the name may be, while the program runs many times.
swap() { # NAME TARGET
    mkdir -p /run/new
    while :; do
        ln -sfn "$2" "$1.new" && mv -fT "$1.new" "$1"
        sleep 0.005
        rm -f "$1"
        case $1 in */agent) mkdir "$1" && sleep 0.002 && rmdir "$1" ;; esac
    done 2> /dev/null &
    swapping=$!
}

# Steps of cases/agent_actions.txt: `corvo_agent run` until its end, with its output in a file.
log=/run/running-agent.log
running=/run/running-agent.pid
start_agent() { # [PROGRAM]
    rm -f /run/agent.status
    : > $log
    (
        ${1:-corvo_agent} run &
        echo $! > $running
        wait $!
        echo $? > /run/agent.status
    ) > $log 2>&1 < /dev/null &
    await 5 test -s $running
}
hup() { kill -HUP "$(cat $running)"; }
logged() { grep -q -- "$*" $log; }

# Prints its exit status.
stop_agent() { # SIGNAL [SECONDS]
    [ -e $running ] || return 0
    kill "-$1" "$(cat $running)" 2> /dev/null
    await "${2:-10}" test -s /run/agent.status && cat /run/agent.status
    rm $running
}

# Whether its process runs the program that only waits.
asleep() {
    process=/proc/$(cat $running)
    program=$(readlink "$process/exe")
    [ "$(cat "$process/comm")" = corvo_agent ] && [ "${program##*/}" = corvo_agent_sleeper ]
}

# Waits until the command succeeds.
await() { # SECONDS COMMAND...
    tries=$(($1 * 50))
    shift
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || { echo "in vain: $*" && return 1; }
        sleep 0.02
    done
}

# Called before each row of cases/commit.txt: a camera with two slots that runs A, with the real tools of the
# boot environment, which has two copies in one file.
commit_camera() {
    cd /run || return
    rm -rf /config/commit /etc/corvo /run/environment /run/restarts
    mkdir -p /etc/corvo
    printf '%s\n' "/run/environment 0x0 0x4000" "/run/environment 0x4000 0x4000" > /etc/fw_env.config
    head -c 32768 /dev/zero > environment
    printf 'bootsystem=A\nboot_loader_saved=1\nother=kept\n' > initial
    fw_setenv -f initial bootcount 3 2> /dev/null
    for name in kernel rootfs; do seq 1000 > /dev/block/by-name/$name; done
    checkboot=/etc/init.d/S99checkboot
    if [ ! -e boot_id ]; then
        : > boot_id > command_line
        mount --bind command_line /proc/cmdline
        mount --bind boot_id /proc/sys/kernel/random/boot_id
        printf '#!/bin/sh\necho restart >> /run/restarts\n' > /camera/bin/reboot
        program=$(command -v corvo_commit)
        sed "s#^program=.*#program=$program#" "${program%/*}/packaging/S99checkboot" > $checkboot
        chmod 755 $checkboot
    fi
    starts A
}
# The camera is started in a slot. The boot loader counts.
starts() { # SLOT
    echo "console=ttyS0 bootsystem=$1 quiet" > command_line
    cat /proc/sys/kernel/random/uuid > boot_id 2> /dev/null
    [ "$(variable upgrade_available)" != 1 ] || fw_setenv bootcount $(($(variable bootcount) + 1))
}
variable() { fw_printenv -n "$1" 2> /dev/null; }
# What the next start finds.
environment() { fw_printenv | grep -v other= | sort | tr '\n' ' ' | sed 's/boot_loader_saved=1 //;s/ $/\n/'; }
short() { sed 's/^corvo_commit: //'; }
trial() { # OPTION...; arms B and starts it
    $checkboot systemB && starts B && corvo_commit "$@" boot
}

# Settings of an agent in /run/conf, which the commands of cases/agent_settings.txt change.
write_settings() {
    cd /run
    [ -d pki ] || "$TEXTS/../scripts/make_pki" pki
    echo secret > token
    chmod 600 token
    printf '%s\n' 'server = https://localhost:1' 'controller-id = cam' 'keyring = pki/root.pem' \
        'state-folder = /run/state' 'compatible = R5C20' 'version-file = none' 'require-mount = no' > conf
}
agent() {
    corvo_agent --config conf "$@"
}
