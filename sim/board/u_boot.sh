# scripts/board u-boot: a board whose boot loader is a real U-Boot, on qemu's "virt" machine, for which Debian
# has one. Its systems are real: a kernel and a root file system (an initramfs), which U-Boot loads from the
# partitions of the selected slot, so what the service writes is what starts next. Sourced by scripts/board.
#
# Not real: the environment is in a partition and has one copy (see u_boot_script), a start ends the emulator
# and the next one begins with it, and the watchdog is the kernel's software watchdog.

u_boot_partitions="env 64
boot 1024
task 64
config 4096
media 32768
kernel_a 8192
kernel_b 8192
rootfs_a 16384
rootfs_b 16384"
rootfs_bytes=$((16384 * 1024))

# --- making it ------------------------------------------------------------------------------------

make_u_boot_root() { # the root file system of all systems, which differ in /system
    local root=$made/initramfs
    begin_root "$root" "$parts/u_boot_init" commit commit_sysv
    # Longer than on the other board, whose clock counts instructions: this one's is that of a busy host.
    double_slots "$root" 'kernel rootfs' 8 'grep -qw healthy /system' 'pidof corvo_upgrade'
    echo '/dev/block/by-name/env 0x0 0x4000' > "$root/etc/fw_env.config"
    # softdog is loaded only by a system that hangs.
    add_modules "$root" softdog virtio_mmio virtio_blk ext4 softdog
    pack_folder "$root" > "$made/root.gz"
}

# An image as large as its partition, so that nothing of an earlier, longer one follows it.
make_system() { # VERSION BEHAVIOUR; the image is $made/rootfs-VERSION.img
    local image=$made/rootfs-$1.img
    rm -rf "$made/system"
    mkdir "$made/system"
    echo "$1 $2" > "$made/system/system"
    pack_folder "$made/system" | cat "$made/root.gz" - > "$image"
    [ "$(stat -c %s "$image")" -le $rootfs_bytes ] || fail "the root file system is larger than its partition"
    truncate -s $rootfs_bytes "$image"
}

make_u_boot_card() {
    local card=$made/card.img name size number=0 arguments=()
    while read -r name size; do
        number=$((number + 1))
        arguments+=(-n "$number:0:+${size}K" -c "$number:$name")
        [ "$name" != boot ] || arguments+=(-A $number:set:2) # U-Boot searches it for a boot script
    done <<< "$u_boot_partitions"
    rm -f "$card"
    truncate -s 128M "$card"
    sgdisk -a 2 -o "${arguments[@]}" "$card" > /dev/null
    write_layout "$card" $number
    rm -rf "$made/boot"
    mkdir -p "$made/boot" "$made/config"
    mkimage -A arm -T script -d "$parts/u_boot_script" "$made/boot/boot.scr" > /dev/null
    make_file_system boot "$made/boot"
    make_file_system config "$made/config"
    for name in a b; do
        put_partition "$card" kernel_$name < "$made/kernel.bin"
        put_partition "$card" rootfs_$name < "$made/rootfs-1.0.img"
    done
    boot_environment "$card" -f <(echo bootlimit=3) bootsystem A 2> /dev/null
}

make_u_boot_board() {
    kernel_packages
    unpack_packages
    build_programs corvo_commit
    make_u_boot_root
    cp "$work/kernel/boot/vmlinuz-$kernel_version" "$made/kernel.bin"
    make_system 1.0 healthy
    make_u_boot_card
    dd if=/dev/zero of="$made/flash.img" bs=1M count=64 status=none
    dd if=/usr/lib/u-boot/qemu_arm/u-boot.bin of="$made/flash.img" conv=notrunc status=none
}

# --- starts ---------------------------------------------------------------------------------------

start_u_boot() { # adds to $console; sets emulator_pid
    qemu-system-arm -M virt -m 256 -display none -monitor none -nic none -no-reboot \
        -drive "if=pflash,format=raw,index=0,file=$made/flash.img,readonly=on" \
        -drive "if=none,id=card,format=raw,file=$card,cache=writeback" -device virtio-blk-device,drive=card \
        -serial "file:$folder/start.txt" < /dev/null > "$folder/emulator.txt" 2>&1 &
    emulator_pid=$!
}
end_start() { # waits for the end of the start; fails if there is none
    local end=$((SECONDS + 200)) status=0
    while kill -0 $emulator_pid 2> /dev/null; do
        [ $SECONDS -lt $end ] || kill -KILL $emulator_pid
        sleep 0.1
    done
    wait $emulator_pid || status=$?
    emulator_pid=
    cat "$folder/start.txt" >> "$console"
    [ $status = 0 ] || echo "CHECK FAIL: the emulator exits with status $status"
    return $status
}
set_task() { printf '%s\n' "$1" | put_partition "$card" task; }

put_package() { # VERSION
    rm -rf "$made/package"
    mkdir "$made/package"
    cp "$made/kernel.bin" "$made/package/kernel.bin"
    cp "$made/rootfs-$1.img" "$made/package/rootfs.img"
    mke2fs -q -F -t ext4 -E root_owner=0:0 -d "$made/package" "$folder/media.ext4" \
        "$(($(bytes_of media) / 1024))K" 2> /dev/null
    put_partition "$card" media < "$folder/media.ext4"
}

# Starts the board until a system has decided and printed its state, at most eight times.
settle() {
    local starts
    set_task wait
    for starts in 1 2 3 4 5 6 7 8; do
        start_u_boot
        end_start || return 1
        ! grep -qa '^STATE end' "$folder/start.txt" || return 0
    done
    return 1
}
what_runs() { # WHAT...; prints what the last start printed of it
    local what
    for what; do tr -d '\r' < "$folder/start.txt" | sed -n "s/^STATE $what //p"; done | paste -s -d ' ' | sed 's/ *$//'
}
started() { # prints the slot and count of every start of this upgrade
    tr -d '\r' < "$console" | sed -n 's/^BOARD U-Boot starts slot \(.\), count /\1/p' | paste -s -d ' '
}
slot_holds() { # SLOT VERSION
    holds_image "$card" "kernel_$1" "$made/kernel.bin" && holds_image "$card" "rootfs_$1" "$made/rootfs-$2.img"
}

upgrade() { # VERSION BEHAVIOUR OF A B STARTS STATE: what follows an upgrade to this system
    local version=$1 behaviour=$2 a=$3 b=$4 starts=$5 state=$6
    : > "$console"
    make_system "$version" "$behaviour"
    put_package "$version"
    set_task upgrade
    start_u_boot
    end_start && settle || echo "CHECK FAIL: no system decides"
    tr -d '\r' < "$console" | grep -aE '^(CHECK|BOARD)' || :
    check "system $version $behaviour: the starts" equals "$(started)" "$starts"
    check "system $version $behaviour: what runs" equals "$(what_runs version slot trial commit reason)" "$state"
    check "system $version $behaviour: slot A holds $a" slot_holds a "$a"
    check "system $version $behaviour: slot B holds $b" slot_holds b "$b"
}

# --- upgrades -------------------------------------------------------------------------------------

upgrades() {
    local unhealthy='health command "grep -qw healthy /system": status 1'
    local gone='the boot loader returned: the system never began its check'
    upgrade 2.0 healthy 1.0 2.0 "A B1" "2.0 B 0 committed: committed"
    upgrade 3.0 panics 3.0 2.0 "B0 A1 A2 A3 B0" "2.0 B 0 committed: committed $gone"
    [ $quick = no ] || return 0
    upgrade 4.0 unhealthy 4.0 2.0 "B0 A1 B0" "2.0 B 0 committed: committed $unhealthy"
    upgrade 5.0 hangs 5.0 2.0 "B0 A1 A2 A3 B0" "2.0 B 0 committed: committed $gone"
    upgrade 6.0 healthy 6.0 2.0 "B0 A1" "6.0 A 0 committed: committed"
}

# --- power cuts -----------------------------------------------------------------------------------

time_start() { # VARIABLE WHAT; sets the variable to the duration of one start in ms
    local begin
    begin=$(date +%s%3N)
    start_u_boot
    end_start || fail "$2 without a power cut does not complete"
    printf -v "$1" %d $(($(date +%s%3N) - begin))
}

# Prepares $made/before-BEHAVIOUR.img and $made/armed-BEHAVIOUR.img, the card before an upgrade of the first
# system and after it. Measures how long the starts take, in ms.
prepare_cuts() { # VERSION BEHAVIOUR
    cp --sparse=always "$made/card.img" "$card"
    make_system "$1" "$2"
    put_package "$1"
    set_task upgrade
    cp --sparse=always "$card" "$made/before-$2.img"
    time_start upgrade_ms "an upgrade"
    set_task wait
    cp --sparse=always "$card" "$made/armed-$2.img"
    time_start trial_ms "a trial"
}

# One cut of three is in the start that writes, one in the start of the new system, one in the start after
# that, which is the old system's if the new one is unhealthy.
u_boot_cut() {
    local version=2.0 behaviour=healthy starts state
    [ $((cut % 2)) = 0 ] || { version=3.0 behaviour=unhealthy; }
    : > "$console"
    if [ $((cut % 3)) = 0 ]; then
        cp --sparse=always "$made/before-$behaviour.img" "$card"
        random_delay "$upgrade_ms"
    else
        cp --sparse=always "$made/armed-$behaviour.img" "$card"
        [ $((cut % 3)) = 1 ] || { start_u_boot && end_start; }
        random_delay "$trial_ms"
    fi
    start_u_boot
    sleep_ms "$delay"
    kill -KILL $emulator_pid 2> /dev/null || :
    wait $emulator_pid 2> /dev/null || :
    emulator_pid=
    cat "$folder/start.txt" >> "$console"
    settle || broken "no system decides"
    starts=$(started)
    state=$(what_runs version slot trial commit)
    slot_holds a 1.0 || broken "the copies of slot A differ"
    case $state in
        "1.0 A "*" committed: committed") ;;
        "$version B 0 committed: committed") slot_holds b "$version" || broken "slot B is not whole" ;;
        *) broken "what runs is $state" ;;
    esac
    case $((cut % 3)),$behaviour,$state in
        *,unhealthy,"$version "*) broken "an unhealthy system is committed" ;;
        [12],healthy,1.0*) broken "one power cut costs a healthy system" ;;
    esac
    echo "$cut|$((cut % 3 + 1)) after $delay ms|$behaviour|$starts|$state" | tee -a "$table"
}

u_boot_cuts() {
    local cut wrong upgrade_ms trial_ms
    RANDOM=$seed
    table=$folder/table.txt
    : > "$table"
    prepare_cuts 2.0 healthy
    prepare_cuts 3.0 unhealthy
    echo "seed $seed; columns: cut, start and time, the new system, the starts, what runs in the end"
    for ((cut = 1; cut <= ${cuts:-0}; cut++)); do
        wrong=no
        u_boot_cut
        if [ $wrong = no ]; then echo "CHECK ok: cut $cut"; else cp -r "$folder" "$folder-cut-$cut"; fi
    done
}

run_u_boot() {
    card=$folder/card.img console=$folder/console.txt
    mkdir -p "$folder"
    cp --sparse=always "$made/card.img" "$card"
    report upgrades
    [ -z "$cuts" ] || report u_boot_cuts
}
