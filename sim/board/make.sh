# Creates the files that the board boots from: kernel, device tree, initramfs, card and NOR chip. Files
# for all runs are below $work, files of one run below $made. Sourced by scripts/board.

doubled=()      # the rows whose partitions have two copies, NAME_a and NAME_b
modules=()      # the rows of the package table, in table order; the card has a partition for each
sent_modules=() # the rows in the board's first request
sent_files=()   # the image files of these
# Rows that are not in the first request: uboot and dtb are in the second one, the others in none.
not_sent=" spl uboot dtb ota_package "
# Rows whose partitions have one copy on every board.
once=" spl uboot ota_package "
# Other programs of the board. Their libraries are in these packages or in the sysroot.
board_packages=(busybox-static nanomsg-utils libubootenv-tool libubootenv0.1)

read_modules() {
    local name file
    while read -r _ name file _; do
        modules+=("$name")
        [ $copies = one ] || [[ $once == *" $name "* ]] || doubled+=("$name")
        [[ $not_sent != *" $name "* ]] || continue
        sent_modules+=("$name")
        sent_files+=("$file")
    done < <(qemu-arm-static -L build/sysroot/glibc/root build/arm/otactl modules)
    [ ${#sent_modules[@]} -gt 0 ] || fail "otactl lists no modules"
}

kernel_packages() {
    local meta=linux-image-armmp
    "$checkout/scripts/fetch_debs" "$debs" $meta
    kernel=$(dpkg-deb -f "$debs"/${meta}_*.deb Depends | grep -o 'linux-image-[^ ]*' | head -n 1)
    "$checkout/scripts/fetch_debs" "$debs" "$kernel" "${board_packages[@]}"
    kernel_version=${kernel#linux-image-}
}

unpack_packages() {
    local package content="$kernel ${board_packages[*]}"
    if [ "$(cat "$work/unpacked" 2> /dev/null)" = "$content" ]; then return; fi
    rm -rf "$work/kernel" "$work/packages"
    mkdir -p "$work/kernel" "$work/packages"
    dpkg-deb -x "$debs/$kernel"_*.deb "$work/kernel"
    for package in "${board_packages[@]}"; do
        dpkg-deb -x "$debs/$package"_*.deb "$work/packages"
    done
    depmod -b "$work/kernel" "$kernel_version"
    echo "$content" > "$work/unpacked"
}

# Takes the kernel's device tree of the board and adapts it to the emulator.
make_device_tree() {
    local tree=$made/board.dtb flash partitions alias name offset size
    flash=/soc/bus@2000000/spba-bus@2000000/spi@2008000/flash@0
    partitions=$flash/partitions
    cp "$work/kernel/usr/lib/linux-image-$kernel_version/imx6q-sabrelite.dtb" "$tree"
    # The board's keys use the GPIO lines of the LED; their driver would occupy the lines.
    fdtput -t s "$tree" /gpio-keys status disabled
    # The emulator has its only card in the fourth slot; the alias makes it mmcblk0.
    for alias in mmc0 mmc1 mmc2 mmc3; do
        fdtput -d "$tree" /aliases $alias
    done
    fdtput -t s "$tree" /aliases mmc0 /soc/bus@2100000/mmc@219c000
    # The emulator does not implement DMA for the first serial line; with DMA the line would be silent.
    fdtput -d "$tree" /soc/bus@2000000/spba-bus@2000000/serial@2020000 dmas dma-names
    fdtput -c "$tree" $partitions
    fdtput -t s "$tree" $partitions compatible fixed-partitions
    fdtput -t i "$tree" $partitions '#address-cells' 1
    fdtput -t i "$tree" $partitions '#size-cells' 1
    # fdtput inserts each node before the existing ones, so the list starts with the last partition.
    while read -r name offset size; do
        fdtput -c "$tree" "$partitions/partition@$offset"
        fdtput -t s "$tree" "$partitions/partition@$offset" label "$name"
        fdtput -t x "$tree" "$partitions/partition@$offset" reg "$offset" "$size"
    done << 'END'
rootfs 120000 e0000
kernel 60000 c0000
dtb 50000 10000
uboot 10000 40000
spl 0 10000
END
}

build_programs() { # ADDITIONAL TARGET...
    local log=$work/build.txt
    "$checkout/scripts/sysroot" glibc
    echo "building build/arm"
    cmake --preset arm > "$log" 2>&1 &&
        cmake --build build/arm --target corvo_upgrade system_call_daemon otactl hal_tool corvo_commit "$@" \
            >> "$log" 2>&1 || {
        tail -n 20 "$log" >&2
        fail "cannot build; the whole output is in $log"
    }
}

# Copies the shared libraries that the files need, and those that these libraries need.
copy_libraries() { # ROOT FILE...
    local root=$1 library found
    shift
    for library in $(arm-linux-gnueabihf-readelf -d "$@" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u); do
        [ -z "$(find "$root" -name "$library")" ] || continue
        found=$(find "$work/packages" build/sysroot/glibc/root/ -name "$library" | head -n 1)
        [ -n "$found" ] || fail "a program needs $library, which is in none of the downloaded packages"
        cp -L "$found" "$root/lib/arm-linux-gnueabihf/"
        copy_libraries "$root" "$found"
    done
}

# Begins a root file system with what those of all boards have in common. The settings of slots and commit
# belong to boards with two copies.
begin_root() { # ROOT INIT COMPONENT...; INIT: the first process
    local root=$1 init=$2 component
    shift 2
    rm -rf "$root"
    mkdir -p "$root"/{bin,sbin,dev,proc,sys,tmp,run,modules,etc/corvo,etc/init.d,var/lock,usr/sbin} \
        "$root/lib/arm-linux-gnueabihf"
    cp "$work/packages"/{bin/busybox,usr/bin/fw_printenv,usr/bin/nanocat} "$root/bin/"
    ln -s fw_printenv "$root/bin/fw_setenv"
    # Installed with cmake --install, as integrators do it.
    for component in service simulated tools bringup sysv "$@"; do
        DESTDIR=$root cmake --install build/arm --strip --component "$component" > /dev/null
    done
    cp -L build/sysroot/glibc/root/lib/ld-linux-armhf.so.3 "$root/lib/"
    copy_libraries "$root" "$root"/bin/{fw_printenv,nanocat} $(find "$root"/usr/*bin -type f ! -name corvo_slots)
    cp "$init" "$root/init"
    chmod 755 "$root/init"
    printf '%s\n' 'root:x:0:0::/:/bin/sh' 'corvo-agent:x:990:990::/:/bin/false' > "$root/etc/passwd"
    printf '%s\n' 'root:x:0:' 'corvo-flash:x:991:corvo-agent' 'corvo-agent:x:990:' > "$root/etc/group"
}
double_slots() { # ROOT ROWS DEADLINE HEALTH_COMMAND...
    local root=$1 rows=$2 deadline=$3
    shift 3
    printf '%s\n' "doubled = $rows" 'slot-from = command-line' 'word-a = bootsystem=A' 'word-b = bootsystem=B' \
        > "$root/etc/corvo/slots.conf"
    printf '%s\n' 'interval = 1' "deadline = $deadline" "${@/#/health-command = }" > "$root/etc/corvo/commit.conf"
}
# crc32-arm-ce is for a newer processor.
add_modules() { # ROOT LATER MODULE...; LATER: the names of those that are not loaded at the start, with "|"
    local root=$1 later=$2 module
    shift 2
    for module; do
        modprobe -d "$work/kernel" -S "$kernel_version" --show-depends "$module" |
            awk '$1 == "insmod" { print $2 }'
    done | awk '!seen[$0]++' > "$made/modules"
    xargs cp -t "$root/modules" < "$made/modules"
    sed 's#.*/##' "$made/modules" | grep -vxE "($later|crc32-arm-ce)\.ko" > "$root/modules/order"
}
pack_folder() { (cd "$1" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1); } # FOLDER; on standard output

make_initramfs() { # COMPONENT...: install these components in addition to those of every board
    local root=$made/initramfs
    [ ${#doubled[@]} = 0 ] || set -- commit commit_sysv "$@"
    begin_root "$root" "$parts/init" "$@"
    cp "$parts/probe" "$parts/../boot_loader" "$root/"
    if [ ${#doubled[@]} -gt 0 ]; then
        double_slots "$root" "${doubled[*]}" 3 health_check
        cp "$parts/../health_check" "$root/bin/"
    else
        cp "$parts/../S99checkboot" "$root/etc/init.d/"
    fi
    chmod 755 "$root"/etc/init.d/*
    printf '%s 0x0 0x4000\n%s 0x10000 0x4000\n' /dev/block/by-name/env /dev/block/by-name/env \
        > "$root/etc/fw_env.config"
    card_partitions | wc -l > "$root/last_partition"
    echo "${sent_modules[*]}" > "$root/sent_modules"
    echo "${sent_files[*]}" > "$root/sent_files"
    head -c 1792 "$made/factory_data" > "$root/factory_data"
    # nandsim and softdog are loaded only for their tests.
    add_modules "$root" 'nandsim|softdog' imx2_wdt softdog gpio-mxc sdhci-esdhc-imx spi-nor ofpart spi-imx \
        ext4 nandsim micrel fec
    pack_folder "$root" > "$made/initramfs.gz"
}

# The sizes are not multiples of any block size, so that a lost tail is detected.
make_images() {
    local folder=$made/images file size=150007
    rm -rf "$folder"
    mkdir -p "$folder"
    for file in "${sent_files[@]}"; do
        "$parts/../make_image" 2.0 $size > "$folder/$file"
        size=$((size % 300000 + 50001))
    done
    head -c 200003 /dev/urandom > "$made/uboot.bin"
    "$parts/../make_image" 2.1 65537 > "$made/dtb.bin"
    "$parts/../make_image" 2.1 310009 > "$made/system2.img"
    # The combined package of the second upgrade.
    qemu-arm-static -L build/sysroot/glibc/root build/arm/otactl pack \
        --output "$folder/camera.pkg" --manifest "$folder/camera.manifest" \
        uboot="$made/uboot.bin" dtb="$made/dtb.bin" system="$made/system2.img" > /dev/null
}

# Prints the partitions of a row of the package table; an upgrade of slot A writes to the last one.
copies_of() { # ROW
    if [[ " ${doubled[*]} " == *" $1 "* ]]; then echo "$1_a $1_b"; else echo "$1"; fi
}

partitions=$parts/partitions
card_partitions() { # prints one line "NAME KIB" for each partition
    local name size
    while read -r name size; do
        case $name in
            \#*) ;;
            modules) for name in "${modules[@]}"; do printf "%s $size\n" $(copies_of "$name"); done ;;
            *) echo "$name $size" ;;
        esac
    done < "$partitions"
}

write_layout() { # CARD PARTITIONS; one line "NAME FIRST_BYTE BYTES" for each partition
    local number
    for number in $(seq "$2"); do
        sgdisk -i "$number" "$1" | awk '
            /^First sector/ { first = $3 } /^Partition size/ { sectors = $3 }
            /^Partition name/ { gsub("\047", "", $3); name = $3 }
            END { print name, first * 512, sectors * 512 }'
    done > "$made/layout"
}

# Creates the card and $made/layout.
make_card() { # SIZE FOLDER; SIZE is a power of two, FOLDER has the content of the memory card
    local card=$made/card.img name size number=0 arguments=()
    while read -r name size; do
        number=$((number + 1))
        arguments+=(-n "$number:0:+${size}K" -c "$number:$name")
    done < <(card_partitions)
    rm -f "$card"
    truncate -s "$1" "$card"
    sgdisk -a 2 -o "${arguments[@]}" "$card" > /dev/null
    write_layout "$card" $number
    # Fill each partition with random data, so that lost data is detected.
    for name in $(for name in "${modules[@]}"; do copies_of "$name"; done) nv_user nv_factory rec_data misc; do
        head -c "$(bytes_of $name)" /dev/urandom | put_partition "$card" $name
    done
    # Both slots contain a whole system, because a package need not contain all of it.
    for name in "${doubled[@]}"; do
        "$parts/../make_image" 1.0 "$(bytes_of "${name}_a")" | put_partition "$card" "${name}_a"
        "$parts/../make_image" 1.0 "$(bytes_of "${name}_b")" | put_partition "$card" "${name}_b"
    done
    put_partition "$card" nv_factory < "$made/factory_data"
    make_file_system config "$made/config"
    make_file_system media "$2"
    boot_environment "$card" -f <(echo "bootdelay=1") bootsystem A 2> /dev/null
}

make_file_system() { # PARTITION FOLDER
    rm -f "$made/$1.ext4"
    mke2fs -q -F -t ext4 -E root_owner=0:0 -d "$2" "$made/$1.ext4" "$(($(bytes_of "$1") / 1024))K" \
        > /dev/null
    put_partition "$made/card.img" "$1" < "$made/$1.ext4"
    rm "$made/$1.ext4"
}

make_board() {
    kernel_packages
    unpack_packages
    build_programs
    read_modules
    make_device_tree
    head -c 2048 /dev/urandom > "$made/factory_data"
    make_images
    make_initramfs
    mkdir -p "$made/config"
    # Keys 1 and 5 (counted from 0) are the outcome of the last upgrade; the others do not belong to the
    # service.
    printf '\x11\x01\x22\x33\x44\x06\x55' > "$made/config/ota_data.dat"
    make_card 32M "$made/images"
    head -c 2M /dev/zero | tr '\0' '\377' > "$made/nor.img"
}
