# scripts/board test: starts one board several times. Sourced by scripts/board.

check() { # WHAT COMMAND...
    local what=$1
    shift
    if "$@"; then echo "CHECK ok: $what"; else echo "CHECK FAIL: $what"; fi
}
equals() { [ "$1" = "$2" ] || { echo "got \"$1\", expected \"$2\"" >&2; return 1; }; }
state_of() { # WHAT; prints the value that the board printed in this start
    tr -d '\r' < "$console" | sed -n "s/^STATE $1 //p"
}
print_checks() { # prints the checks from the board's console
    tr -d '\r' < "$console" | grep -aE '^(CHECK|BOARD)' || :
}

check_card() { # RECORD SLOT
    local card=$folder/card.img
    check "outside: the record is $1" equals "$(record_of "$card")" "$1"
    check "outside: the boot slot is $2" equals "$(boot_environment "$card")" "$2"
}
target_of() { # ROW SLOT; prints the partition into which an upgrade of this slot is written
    local copies
    copies=($(copies_of "$1"))
    if [ "$2" = A ]; then echo "${copies[0]}"; else echo "${copies[-1]}"; fi
}
declare -A written # the image that each partition must contain
check_card_content() {
    local name
    for name in $(for name in "${modules[@]}"; do copies_of "$name"; done) nv_factory; do
        if [ -n "${written[$name]:-}" ]; then
            check "outside: $name contains its image" \
                holds_image "$folder/card.img" "$name" "${written[$name]}"
        else
            check "outside: $name is unchanged" same_as_before "$folder/card.img" "$name"
        fi
    done
}

first_start() {
    local i
    boot probe || return 0
    print_checks
    for i in "${!sent_modules[@]}"; do
        written[$(target_of "${sent_modules[$i]}" B)]=$made/images/${sent_files[$i]}
    done
    check_card_content
    check_card 11012233440355 B
}

second_start() {
    boot combined || return 0
    print_checks
    check "inside: the record after the restart" equals "$(state_of record)" 11012233440355
    check "inside: the boot slot after the restart" equals "$(state_of slot)" B
    check "inside: the package files are deleted" equals "$(state_of package)" ""
    written+=([uboot]=$made/uboot.bin [$(target_of dtb A)]=$made/dtb.bin
        [$(target_of system A)]=$made/system2.img)
    check_card_content
    check_card 11012233440355 A
}

third_start() {
    boot state || return 0
    check "inside: the record after the second upgrade" equals "$(state_of record)" 11012233440355
    check "inside: the boot slot after the second upgrade" equals "$(state_of slot)" A
}

# Slot B is on trial, but one of its partitions is damaged: three starts fail, and the fourth falls back.
fourth_start() {
    [ $copies = two ] || return 0
    head -c 1000 /dev/urandom | put_partition "$folder/card.img" kernel_b
    boot_environment "$folder/card.img" -s <(printf '%s\n' bootsystem=B upgrade_available=1 bootcount=0)
    boot state || return 0
    check "inside: three starts of the damaged slot" equals "$(grep -c 'slot B has no whole system' "$console")" 3
    check "inside: the boot loader falls back to slot A" equals "$(state_of slot)" A
    check "inside: the boot environment keeps the reason" equals "$(state_of rolled_back)" B
}

report() { # COMMAND...: runs it, counts its checks and fails if one failed
    local report=$folder/report.txt passed failed shown tee_pid
    # Not in a pipeline, which would be a subshell: the EXIT trap needs emulator_pid in this shell.
    exec {shown}> >(exec tee "$report")
    tee_pid=$!
    "$@" >&$shown 2>&1
    exec {shown}>&-
    wait $tee_pid
    passed=$(grep -ac '^CHECK ok' "$report") || :
    failed=$(grep -ac '^CHECK FAIL' "$report") || :
    echo "board: $passed passed, $failed failed"
    [ "$failed" = 0 ] && [ "$passed" -gt 0 ]
}

all_starts() { first_start; second_start; third_start; fourth_start; }
run_test() { report all_starts; }
