# The camera of one row of cases/agent_actions.txt, before anything has happened, and its agent's
# settings. Arguments: the row's first word, the server's URL, the camera's name there.
set -e
folder=/media/mmcblk0p1/ota
[ ! -L $folder ] || rm $folder
rm -rf /config/agent $folder/agent /run/stop /run/once /run/overtake /run/overtaken /run/late /run/fitness.pid
mkdir -p $folder
case $1 in *full*) mount -t tmpfs -o size=1M none $folder ;; esac
# A card that leads elsewhere, where somebody has a file.
case $1 in *leads-to-state*) rm -r $folder && ln -s /config $folder ;; esac
# Folders where files are to be.
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
# "state NAME KIND": what lies in the state folder instead of a file that the agent has written.
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
            # A regular file whose first byte gives EIO, and that cannot be replaced.
            *unreadable) : > "$file" && mount --bind /proc/1/mem "$file" ;;
        esac
        ;;
esac
# The service of an upgrade that somebody else has asked for has ended.
case $1 in stuck*late) touch /run/late ;; esac
case $1 in begun) echo 999999 > /tmp/corvo_upgrade.pid ;; esac
printf 'p\1rst\3v' > /config/ota_data.dat
echo A > /run/slot
case $1 in overtaken*) touch /run/overtaken ;; esac
case $1 in slotless) : > /run/slot ;; esac
echo 1.9 > /etc/version
# /run/stop: the agent is asked to end, and what it asks for is not there yet.
cat > /camera/bin/fw_printenv << 'end'
#!/bin/sh
[ ! -e /run/stop ] || { rm /run/stop && kill -TERM "$(cat /run/agent.pid)" && exit 1; }
# Another sender is faster while an upgrade is committed.
if [ -e /run/overtaken ] && [ -e /media/mmcblk0p1/ota/agent/rootfs.img ]; then
    mv /run/overtaken /run/overtake
fi
while [ -e /run/overtake ]; do sleep 0.02; done
cat /run/slot
end
chmod 755 /camera/bin/fw_printenv
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
    # The folder is the host's, but for a card that is mounted later.
    case $1 in *cardless*) ;; *) echo "require-mount = no" ;; esac
    case $1 in
        *unchecked*) echo "check-partitions = off" ;;
        asks* | agrees* | denies*) echo "confirm = ask" ;;
        # Somebody writes to what was checked, right before it is asked for.
        tampers) echo "fitness-command = \"[ ! -e $folder/agent/kernel.bin ] || echo x >> $folder/agent/kernel.bin\"" ;;
        slow) echo 'fitness-command = "[ -e /run/once ] || touch /run/once /run/gate; while [ -e /run/gate ]; do sleep 0.02; done"' ;;
        hangs) echo 'fitness-command = "echo $$ > /run/fitness.pid; exec sleep 600"' ;;
        hangs-later) echo "fitness-command = '[ ! -e $folder/agent/rootfs.img ] || { echo \$\$ > /run/fitness.pid; exec sleep 600; }'" ;;
        stopped-early) echo 'fitness-command = "[ -e /run/once ] || touch /run/once /run/stop"' ;;
        # Not in UTF-8, as the server wants it.
        unfit) printf 'battery low \374\n' > /run/battery && echo 'fitness-command = "cat /run/battery; false"' ;;
        # A minute that is over long before this could be.
        *unfit-later) echo "fitness-command = '[ \$(cat /run/boot_id) = 0 ]'" ;;
        attempts) date -d "+2 hours" "+window = %H:%M-$(date -d "+121 minutes" +%H:%M)" ;;
    esac
} > /etc/corvo/agent.conf
