# Creates the camera of one row of cases/agent_actions.txt in its initial state, and the settings of its
# agent. Arguments: the row's first field, the server's URL, the camera's name at the server.
set -e
folder=/media/mmcblk0p1/ota
[ ! -L $folder ] || rm $folder
rm -rf /config/agent /config/commit $folder/agent /run/stop /run/once /run/overtake /run/overtaken /run/begins /run/late /run/agent.log /run/fitness.pid /run/unseeded
mkdir -p $folder
case $1 in *full*) mount -t tmpfs -o size=1M none $folder ;; esac
# The package folder is a link to a folder with other files.
case $1 in *leads-to-state*) rm -r $folder && ln -s /config $folder ;; esac
# Folders with the names of files that the agent creates.
case $1 in
    *blocked*)
        for name in kernel.bin.part kernel.bin.part.from kernel.bin.part.from.new rootfs.img; do
            mkdir -p $folder/agent/$name/in/side
            : > $folder/agent/$name/in/file
        done
        ;;
    *open-folder*) mkdir -p $folder/agent && chmod 777 $folder/agent ;;
esac
case $1 in *linked*) mkdir -p /run/elsewhere && echo theirs > /run/elsewhere/file && ln -s /run/elsewhere $folder/agent ;; esac
# "state NAME KIND": puts something else in the place of one of the agent's files in the state folder.
case $1 in
    *state\ *)
        mkdir -p /config/agent
        name=${1#*state }
        file=/config/agent/${name% *}
        case $1 in
            *folder) mkdir -p "$file/in" ;;
            *pipe) mkfifo "$file" ;;
            *large) head -c 1048577 /dev/zero > "$file" ;;
            *old) echo '{"id":"10","confirmed":true}' > "$file" ;;
            *text) echo "no JSON" > "$file" ;;
            # A regular file whose first byte cannot be read (EIO), and that cannot be replaced.
            *unreadable) : > "$file" && mount --bind /proc/1/mem "$file" ;;
        esac
        ;;
esac
# The camera was started long ago, even if this machine was not.
echo 700.00 > /run/uptime
mountpoint -q /proc/uptime || mount --bind /run/uptime /proc/uptime
# See WITHDRAWS_LATE in agent_cuts.cpp.
case $1 in stuck*late) touch /run/late ;; esac
case $1 in begun) echo 999999 > /tmp/corvo_upgrade.pid ;; esac
printf 'p\1rst\3v' > /config/ota_data.dat
echo A > /run/slot
case $1 in *overtaken\ begun) touch /run/begins ;; overtaken*) touch /run/overtaken ;; esac
case $1 in slotless) : > /run/slot ;; esac
echo 1.9 > /etc/version
# With /run/stop: sends SIGTERM to the agent while it queries the slot, and fails.
cat > /camera/bin/fw_printenv << 'end'
#!/bin/sh
[ ! -e /run/stop ] || { rm /run/stop && kill -TERM "$(cat /run/agent.pid)" && exit 1; }
# Another sender, or the service, is faster while an upgrade is committed.
if [ -e /media/mmcblk0p1/ota/agent/rootfs.img ]; then
    [ ! -e /run/overtaken ] || mv /run/overtaken /run/overtake
    [ ! -e /run/begins ] || { rm /run/begins && echo 999999 > /tmp/corvo_upgrade.pid; }
fi
while [ -e /run/overtake ]; do sleep 0.02; done
cat /run/slot
end
chmod 755 /camera/bin/fw_printenv
# What the service runs to switch the slot.
case $1 in
    *no-switch*) echo : > /etc/init.d/S99checkboot ;;
    *) printf '#!/bin/sh\necho "${1#system}" > /run/slot\n' > /etc/init.d/S99checkboot ;;
esac
chmod 755 /etc/init.d/S99checkboot
# corvo_commit decides about the new system. An old failure is recorded.
case $1 in
    *on-trial*)
        cat > /camera/bin/fw_printenv << 'end'
#!/bin/sh
[ $# -gt 0 ] || printf bootsystem=
cat /run/slot
[ $# -gt 0 ] || cat /run/boot_variables
end
        cat > /camera/bin/fw_setenv << 'end'
#!/bin/sh
cat > /run/stored
sed -n 's/^bootsystem=//p' /run/stored > /run/selected
[ ! -s /run/selected ] || cp /run/selected /run/slot
sed '/^bootsystem=/d; /=$/d' /run/stored > /run/boot_variables
end
        chmod 755 /camera/bin/fw_setenv
        program=$(command -v corvo_commit)
        cat > /etc/init.d/S99checkboot << end
#!/bin/sh
$program arm "\${1#system}" && printf '%s\n' "bootsystem=\${1#system}" upgrade_available=1 | fw_setenv
end
        case $1 in *unhealthy*) health="echo dark; false" ;; *) health=true ;; esac
        mkdir -p /etc/corvo
        printf '%s\n' "word-a = slot=A" "word-b = slot=B" "health-command = '$health'" "deadline = 1" \
            "interval = 1" "restart-command = :" > /etc/corvo/commit.conf
        printf '%s\n' rolled_back=B > /run/boot_variables
        sh "${0%/*}/two_copies.sh" A kernel rootfs
        corvo_commit boot > /run/commit.log 2>&1
        : > /run/boot_variables
        ;;
esac
# Its partition has an older image.
case $1 in *older*) head -c 1200000 /dev/zero | cat /run/older - > /dev/block/by-name/kernel ;; esac
case $1 in *two-copies*) sh "${0%/*}/two_copies.sh" A kernel rootfs ;; esac
boot_id=/proc/sys/kernel/random/boot_id
echo 0 > /run/boot_id
[ "$(cat $boot_id)" = 0 ] || mount --bind /run/boot_id $boot_id

mkdir -p /etc/corvo
echo secret > /etc/corvo/token
chmod 600 /etc/corvo/token
{
    printf '%s\n' "server = $2" "controller-id = \"$3\"" "target-token-file = /etc/corvo/token" \
        "allow-unencrypted-token = on" \
        "keyring = /run/pki/root.pem" "compatible = R5C20" "version-file = /etc/version"
    # The folder is not a mount point, except in rows with a card that is mounted later.
    case $1 in *cardless*) ;; *) echo "require-mount = no" ;; esac
    case $1 in
        *unchecked*) echo "check-partitions = off" ;;
        *delta*) echo "delta-source = kernel=/run/older" ;;
        asks*) echo "confirm = ask" ;;
        # Somebody writes to what was checked, right before it is asked for.
        tampers) echo "fitness-command = \"[ ! -e $folder/agent/kernel.bin ] || echo x >> $folder/agent/kernel.bin\"" ;;
        slow) echo 'fitness-command = "[ -e /run/once ] || touch /run/once /run/gate; while [ -e /run/gate ]; do sleep 0.02; done"' ;;
        hangs) echo 'fitness-command = "echo $$ > /run/fitness.pid; exec sleep 600"' ;;
        hangs-later) echo "fitness-command = '[ ! -e $folder/agent/rootfs.img ] || { echo \$\$ > /run/fitness.pid; exec sleep 600; }'" ;;
        stopped-early) echo 'fitness-command = "[ -e /run/once ] || touch /run/once /run/stop"' ;;
        # The text is not valid UTF-8, which the server requires.
        unfit) printf 'battery low \374\n' > /run/battery && echo 'fitness-command = "cat /run/battery; false"' ;;
        # Fit only until the first restart.
        *unfit-later) echo "fitness-command = '[ \$(cat /run/boot_id) = 0 ]'" ;;
        # A window of one minute that begins in two hours.
        attempts) date -d "+2 hours" "+window = %H:%M-$(date -d "+121 minutes" +%H:%M)" ;;
    esac
} > /etc/corvo/agent.conf
