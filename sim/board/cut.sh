# scripts/board cut: cuts the power at a random moment of an upgrade, and starts the board again. Sourced
# by scripts/board. After each power cut these must be true:
#
#   1  the record says "succeeded" only if the first image was not begun, or all are written and verified
#   2  package files are deleted only after the record says "succeeded"
#   3  the boot slot is switched only after the record says "succeeded"
#   4  partitions that are not in the request are unchanged, and so are the copies of the running slot. With
#      two copies the board always starts: the boot loader's stand-in finds a whole system
#   5  the record's other keys have their old values, or the file is short because the power cut
#      interrupted its rewrite
#   6  if the success verdict was not recorded yet, sending the same request again ends in success

before=11012233440655  # the record at the beginning: an earlier upgrade succeeded
verdict=11012233440355 # the record after this upgrade has succeeded

broken() { # WHAT
    echo "CHECK FAIL: cut $cut, $1"
    wrong=yes
}

# Sets the variable "delay" to 0 ... LIMIT - 1 milliseconds. Does not print it, because a command
# substitution is a subshell, which has another random seed.
random_delay() { delay=$(((RANDOM * 32768 + RANDOM) % $1)); } # LIMIT
sleep_ms() { sleep "$(printf '%d.%03d' $(($1 / 1000)) $(($1 % 1000)))"; }
waits_until() { # COMMAND...
    local i
    for ((i = 0; i < 6000; i++)); do
        "$@" && return 0
        kill -0 $emulator_pid 2> /dev/null || return 1
        sleep 0.01
    done
    return 1
}
has_line() { grep -qa "$2" "$1"; }                        # FILE TEXT
has_lines() { [ "$(wc -l < "$1")" -ge "$2" ]; }           # FILE COUNT
line_of() { grep -an -m 1 "$2" "$1" | cut -d : -f 1; }    # FILE TEXT

# Measures how long an upgrade takes on this machine (upgrade_ms), and between which lines of its output
# the service writes images (first_written, last_written).
measure_upgrade() {
    new_run
    boot cut || fail "an upgrade without a power cut does not complete"
    upgrade_ms=$(tr -d '\r' < "$console" | awk '
        /BOARD request sent/ { sent = $(NF - 1) }
        /BOARD restarts/ { print int(($(NF - 1) - sent) * 1000) }')
    first_written=$(line_of "$service" "ota hal init start") &&
        last_written=$(line_of "$service" "$last_verified") ||
        fail "the output of the service does not mention its images"
}

# Chooses the moment of the power cut: a third of the cuts at any time, a third at any line of output
# while images are written, a third shortly after the last read-back. So the short stages are hit often
# enough, however fast the emulator is.
wait_for_moment() {
    local delay line
    case $((cut % 3)) in
        0)
            random_delay "$upgrade_ms"
            waits_until has_line "$console" "request posted"
            ;;
        1)
            random_delay $((last_written - first_written))
            line=$((first_written + delay))
            random_delay 50
            waits_until has_lines "$service" "$line"
            ;;
        2)
            random_delay 500
            waits_until has_line "$service" "$last_verified"
            ;;
    esac || broken "the board does not reach the moment of the power cut"
    sleep_ms "$delay"
}

stage_of() { # FILE; prints the stage according to the last line of the service's output
    local lines=$1
    case $(tr -d '\r' < "$lines" | grep -aoE 'RECV_MSG|ota kill process end|ota hal init end|[a-z]+\.(bin|img) start,|read verify success|UGRADE_SUCCESS|AB switch end|delete file|umount disk|Restart the' | tail -n 1) in
        "") echo "1 before the request is received" ;;
        RECV_MSG) echo "2 stopping the applications" ;;
        "ota kill process end") echo "3 preparing" ;;
        "ota hal init end") echo "4 checking the request" ;;
        *start,) echo "5 erasing, writing, reading back" ;;
        "read verify success") echo "6 between two modules" ;;
        UGRADE_SUCCESS) echo "7 recording the success, switching the slot" ;;
        "AB switch end") echo "8 slot switched" ;;
        "delete file") echo "9 package deleted, flush and pause" ;;
        *) echo "10 unmounting, restarting" ;;
    esac
}

images_on_card() { # prints how many of the requested partitions contain their images
    local i count=0
    for i in "${!sent_modules[@]}"; do
        ! holds_image "$folder/card.img" "$(target_of "${sent_modules[$i]}" B)" "$made/images/${sent_files[$i]}" ||
            count=$((count + 1))
    done
    echo $count
}

check_untouched() {
    local name
    for name in $(for name in "${modules[@]}"; do copies_of "$name"; done) nv_user nv_factory rec_data misc; do
        [[ " $targets " != *" $name "* ]] || continue
        same_as_before "$folder/card.img" $name || broken "4: $name differs"
    done
}

check_after_cut() { # RECORD SLOT FILES IMAGES-ON-CARD BEGUN
    local record=$1 slot=$2 files=$3 images=$4 begun=$5 keys
    if [ "${record:2:2}" = 01 ] && [ "$begun" = yes ] && [ "$images" != "$requested" ]; then
        broken "1: the record says succeeded with $images of $requested images written"
    fi
    if [ "$files" != "$all_files" ] && [ "$record" != $verdict ]; then
        broken "2: package files are gone with the record $record"
    fi
    if [ "$slot" = B ] && [ "$record" != $verdict ]; then
        broken "3: the slot is switched with the record $record"
    fi
    case $slot in A | B) ;; *) broken "3: the boot environment is lost" ;; esac
    keys=$(sed -E 's/^(..)..(......)..(..)$/\1\2\3/' <<< "$record")
    if [ ${#record} = 14 ]; then
        [ "$keys" = 1122334455 ] || broken "5: the other keys are $keys"
    else
        short=$((short + 1))
        # A power cut during the rewrite leaves the file empty, missing or truncated.
        [[ $record == none || $verdict == "$record"* || 11022233440655 == "$record"* ]] ||
            broken "5: the short record is $record"
    fi
}

check_after_again() { # checks that the upgrade completed after the request was sent again
    local card=$folder/card.img
    [ "$(images_on_card)" = "$requested" ] || broken "6: not all images are written"
    [[ $(record_of "$card") == ??01??????03?? ]] || broken "6: the record is $(record_of "$card")"
    check_untouched
}

one_cut() {
    local images record slot files begun=no stage last
    new_run
    start_emulator cut
    wait_for_moment
    kill -KILL $emulator_pid 2> /dev/null || :
    wait $emulator_pid 2> /dev/null || :
    emulator_pid=
    stage=$(stage_of "$service")
    ! grep -qa 'ota hal init end' "$service" || begun=yes
    ! grep -qa 'BOARD restarts' "$console" || stage="11 after the upgrade"
    images=$(images_on_card)
    check_untouched
    boot again || broken "the board does not start again"
    ! grep -qa 'no slot can be started' "$console" || broken "4: no slot contains a whole system"
    record=$(state_of record) slot=$(state_of slot) files=$(state_of package)
    check_after_cut "$record" "$slot" "$files" "$images" $begun
    if [ "$record" != $verdict ]; then
        check_after_again
        last="sent again: succeeded"
        again=$((again + 1))
    else
        last="verdict was reached"
    fi
    [ $wrong = no ] || { last=BROKEN && cp -r "$folder" "$folder-cut-$cut"; }
    echo "$cut|$stage|$record|$slot|$images|$last" | tee -a "$table"
}

run_cuts() {
    local cut wrong again=0 short=0 passed=0 failed=0 upgrade_ms first_written last_written
    local requested=${#sent_modules[@]} last_verified all_files targets
    targets=$(for name in "${sent_modules[@]}"; do target_of "$name" B; done | paste -s -d ' ')
    last_verified="partition: ${sent_modules[-1]} read verify success"
    printf -v all_files '%s ' "${sent_files[@]}"
    RANDOM=$seed
    table=$folder/table.txt
    : > "$table"
    measure_upgrade
    echo "an upgrade takes $upgrade_ms ms; lines $first_written to $last_written are printed while it writes images"
    echo "seed $seed; columns: cut, stage, record, slot, images written, what followed"
    for ((cut = 1; cut <= ${cuts:-20}; cut++)); do
        wrong=no
        one_cut
        if [ $wrong = no ]; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
    done
    echo "power cuts by stage:"
    cut -d '|' -f 2 "$table" | sort -n | uniq -c
    echo "$again times the request was sent again, $short times the record was short"
    echo "board: $passed passed, $failed failed"
    [ $failed = 0 ]
}
