# scripts/board camera: the board as one camera of scripts/fleet. Sourced by scripts/board.
#
# FOLDER must contain the file "partitions", in the format of sim/board/partitions, and the folder
# "config", the initial content of /config: the agent's settings and the files that they name. The output
# of the programs is appended to agent.txt and service.txt in FOLDER. card.img and nor.img keep the
# board's storage from one start to the next.

make_camera() {
    kernel_packages
    unpack_packages
    build_programs corvo_agent
    read_modules
    make_device_tree
    head -c 2048 /dev/urandom > "$made/factory_data"
    partitions=$folder/partitions
    make_initramfs agent agent_sysv
    mkdir -p "$made/config" "$made/media/ota"
    cp "$folder"/config/* "$made/config/"
    make_card 64M "$made/media"
    echo "$kernel_version" > "$made/kernel_version"
    head -c 2M /dev/zero | tr '\0' '\377' > "$folder/nor.img"
    mv "$made/card.img" "$folder/card.img"
}

run_camera() {
    read -r kernel_version < "$made/kernel_version"
    case $act in
        make) ;;
        run)
            emulator_arguments agent chardev:service chardev:console
            emulator+=(-chardev "file,id=service,append=on,path=$folder/service.txt"
                -chardev "file,id=console,append=on,path=$folder/agent.txt" -nic user)
            # Killing this process must cut the board's power, so the emulator replaces this shell.
            trap - EXIT
            exec "${emulator[@]}"
            ;;
        look)
            boot look
            tr -d '\r' < "$folder/console-look.txt" | sed -n 's/^LOOK //p'
            ;;
    esac
}
