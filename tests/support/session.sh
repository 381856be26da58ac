# Read by the shell before each row of the cases that are typed.
export LC_ALL=C
bytes() { tail -c +$(($1 + 1)) "$3" | head -c "$2"; } # OFFSET SIZE FILE

# What a write leaves in a partition: "kept", or how many of the package's bytes from OFFSET on,
# and behind them nothing but erased cells.
left() { # PART ERASED OFFSET
    if cmp -s /tmp/old "$1"; then
        printf kept
        return
    fi
    written=$(tr -d "$2" < "$1" | wc -c)
    printf %s "$written"
    bytes "$3" "$written" /tmp/package | cmp -s -n "$written" - "$1" || printf ' wrong'
}

# One row of cases/flash.txt: the same write by the driver and by the platform layer.
flash() { # STORAGE HOW OFFSET LENGTH [CALL ORDINAL EFFECT]
    if ! [ -f /tmp/package ]; then
        seq 40000 | head -c 200000 > /tmp/package # without a byte of all zeros or all ones
        head -c 164096 /dev/zero | tr '\0' o > /tmp/old
        mkdir -p /dev/mtd
        printf 'mtd0: 00028100 00001000 "rootfs"\nmtd12: 00028100 00001000 "root"\n' > /tmp/proc_mtd
    fi
    case $1 in
        mmc) part=/dev/block/by-name/root erased='\0' storage=33 ;;
        mtd) part=/dev/mtd/12 erased='\377' storage=17 ;;
    esac
    case $5-$7 in
        cell-) export WORN_CELL="$6" ;;
        *-EIO) export CORVO_FAULTS="$5:$6:5:0" ;;
        *-EINTR) export CORVO_FAULTS="$5:$6:4:0" ;;
        *) export CORVO_FAULTS="$5:$6:0:$7" ;;
    esac
    image=/tmp/package
    if [ "$2" = whole ]; then
        image=/tmp/image
        bytes "$3" "$4" /tmp/package > $image
        by_driver=$1-erase-write
        by_platform=pal-ota-upgrade
    else
        # The drivers take positions of 32 bits with a sign and of 64 bits without.
        end=$((($3 + $4 + 0x80000000) % 0x100000000 - 0x80000000))
        case $1 in mmc) range="$3 $end" ;; mtd) range=$(printf '%u %u' "$3" "$4") ;; esac
        by_driver=$1-erase-write-range
        by_platform=pal-ota-upgrade-range
        platform_range="$(($3 & 0xffffffff)) $(($4 & 0xffffffff))"
    fi
    for command in "$by_driver root $image $range" \
        "$by_platform 4 root $image $platform_range $storage"; do
        cp /tmp/old $part
        hal_tool $command > /tmp/said 2> /tmp/result
        sed -n 's/^result //p; /open$/p' /tmp/result
        {
            left $part $erased "$3"
            sed -n 's/.*write flash progress / /p; s/.*_M[MT][CD] [12] 4 / /p' /tmp/said | tr -d '\n'
            echo
        } >> /tmp/left
    done
    uniq /tmp/left
    rm /tmp/left
}

# One row of cases/upgrade_arguments.txt: an upgrade by range, then one with the whole image.
upgrade_arguments() { # TYPE PART IMAGE STORAGE
    printf old > /dev/block/by-name/kernel
    printf new > /tmp/image
    hal_tool pal-ota-upgrade-range "$1" "$2" "$3" 0 3 "$4" > /tmp/said 2> /tmp/result
    hal_tool pal-ota-upgrade "$1" "$2" "$3" "$4" >> /tmp/said 2>> /tmp/result
    sed 's/^result //' /tmp/result
    cat /dev/block/by-name/kernel
    sed -n 's/.* 4 /, /p' /tmp/said | tr -d '\n'
}
