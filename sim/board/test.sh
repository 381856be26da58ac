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
    [ $copies = one ] || check_committed "inside: slot B is committed" ""
    check "inside: the package files are deleted" equals "$(state_of package)" ""
    written+=([uboot]=$made/uboot.bin [$(target_of dtb A)]=$made/dtb.bin
        [$(target_of system A)]=$made/system2.img)
    check_card_content
    check_card 11012233440355 A
}

# With two copies it also commits slot A, and arms a trial of slot B for the next start.
third_start() {
    [ $copies = one ] || put_system 3.0 "needs /config/lens.cal"
    boot $([ $copies = one ] && echo state || echo arm) || return 0
    print_checks
    check "inside: the record after the second upgrade" equals "$(state_of record)" 11012233440355
    check "inside: the boot slot after the second upgrade" equals "$(state_of slot)" A
    [ $copies = one ] || check_committed "inside: slot A is committed after the second upgrade" ""
}

put_system() { # VERSION TEXT: what a later start finds in slot B
    "$parts/../make_image" "$1" "$(bytes_of rootfs_b)" "$2" | put_partition "$folder/card.img" rootfs_b
}
check_committed() { # WHAT REASON
    check "$1" equals "$(state_of commit), $(state_of reason)" "committed: committed, $2"
}

unhealthy_system() {
    boot state || return 0
    check "inside: slot B is given up" grep -qa '^corvo_commit: slot B: .*; going back to slot A' "$console"
    put_system 4.0 panics
    boot arm || return 0
    print_checks
    check "inside: slot A runs after an unhealthy system" equals "$(state_of slot)" A
    check_committed "inside: the old system knows why" \
        'health command "health_check": status 1: no picture: /config/lens.cal does not exist'
}

# Three starts fail before corvo_commit runs, each for another cause, and the fourth falls back.
system_that_never_decides() {
    boot state || return 0
    check "inside: a system panics in its first start" grep -qa "BOARD slot B, version 4.0" "$console"
    put_system 5.0 hangs
    boot state || return 0
    check "inside: a system hangs in its second start" grep -qa "BOARD slot B, version 5.0" "$console"
    check "inside: neither gets as far as its programs" equals "$(grep -ca 'camera up' "$console")" 0
    head -c 1000 /dev/urandom | put_partition "$folder/card.img" kernel_b
    boot state || return 0
    check "inside: the third start, of a damaged slot" equals "$(grep -ca 'slot B has no whole system' "$console")" 1
    check "inside: the boot loader falls back to slot A" equals "$(state_of slot)" A
    check "inside: the boot environment keeps the reason" equals "$(state_of rolled_back)" B
    check_committed "inside: the old system knows that none was confirmed" \
        "the boot loader returned: the system never began its check"
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

all_starts() {
    first_start
    second_start
    third_start
    [ $copies = one ] || { unhealthy_system; system_that_never_decides; }
}
run_test() { report all_starts; }
