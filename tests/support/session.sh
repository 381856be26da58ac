# Read by the shell before each row of the cases that are typed. It starts few processes, for they
# are most of what a row costs.
export LC_ALL=C

# Runs hal_tool on the partition that is full of "o". Sets code, and text: what the partition holds
# then, and the percents and errors that were reported.
write_flash() { # HAL_TOOL'S ARGUMENTS...
    cp /tmp/old $part
    hal_tool "$@" > /tmp/said 2>&1
    text=$(sed -n 's/.*write flash progress //p; s/.*_M[MT][CD] [12] 4 //p; s/.*result //p; /left open/p' /tmp/said)
    text=$(echo $text)
    code=${text##* }
    text=${text%"$code"}
    text=${text% }

    # The package's bytes from the offset on, and behind them nothing but erased cells.
    same=$(cmp -i "$skip:0" /tmp/package $part 2>&1)
    byte=${same#*char }
    byte=${byte#*byte }
    byte=${byte%%,*}
    case $same in *differ:*) byte=$((byte - 1)) ;; esac
    cells=$(tr -d "$erased" < $part | wc -c)
    case $byte-$cells in
        0-164096) text="kept $text" ;;
        "$cells-$byte") text="$cells $text" ;;
        *) text="$cells wrong $text" ;;
    esac
    text=${text% }
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
        # The drivers take positions of 32 bits with a sign and of 64 bits without.
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
