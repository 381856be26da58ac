# Runs an upgrade inside the private root. Prints the files, queues and sockets that the service, its daemon and
# the agent create, while they wait and afterwards: name, type, mode and owner of each ("agent": the agent's
# user). Arguments: folder of the programs, umask. The agent runs as another user, as on a camera; if this
# machine does not allow that, the line "one user" is printed.
set -e
PATH=$1:$PATH
umask "$2"
work=/camera # files of this script, which are not printed
for partition in kernel nv_factory; do head -c 100000 /dev/zero > /dev/block/by-name/$partition; done
mkdir -p /media/mmcblk0p1/ota
head -c 50000 /dev/urandom > /media/mmcblk0p1/ota/kernel.bin
printf '#!/bin/sh\necho bootsystem=A\n' > /camera/bin/fw_printenv
chmod 755 /camera/bin/fw_printenv
"$(dirname "$0")/../../scripts/make_pki" $work/pki > $work/pki.txt 2>&1
chmod 755 $work $work/pki
chmod 644 $work/pki/root.pem
echo 2.0 > $work/version
mkdir -p -m 755 /config
chmod 755 / /config /media /media/mmcblk0p1 /media/mmcblk0p1/ota /run /camera/bin
sleep 0.02
touch $work/mark
sleep 0.02

made() {
    # Without /run/reboot, in which the private root's "reboot" records its calls.
    find / -xdev -newer $work/mark ! -type d ! -path "$work/*" ! -path '/dev/*' ! -path /run/reboot \
        -printf '%p %y %m %u\n' | sed 's/ nobody$/ agent/'
    awk 'FNR > 1 { sub(".*/", "", FILENAME); print "queue of /tmp", FILENAME, $3, $8 ? "uid" $8 : "root" }' /proc/sysvipc/msg
    awk 'FNR > 1 { sub(".*/", "", FILENAME); print "other", FILENAME, $3, "uid" $5 }' /proc/sysvipc/sem /proc/sysvipc/shm
}

system_call_daemon > $work/daemon.txt 2>&1 &
corvo_upgrade > $work/service.txt 2>&1 &
service=$!
until grep -q "wait for ota message" $work/service.txt; do sleep 0.1; done
made
otactl send files --dir /media/mmcblk0p1/ota/ kernel > /dev/null
until ! kill -0 $service 2> /dev/null; do sleep 0.2; done
made

running=$(cut -d ' ' -f 1 /proc/cmdline)
corvo_commit --word-a "$running" boot 2> $work/commit.txt
corvo_commit --word-a "$running" commit 2>> $work/commit.txt

# The preparation by the unit or the init script. With a mounted card, without which the agent does not write.
mount -t tmpfs -o mode=755 card /media/mmcblk0p1
group=$(id -gn nobody)
mkdir -p -m 755 /run/corvo-agent
as_agent="setpriv --reuid nobody --regid $group --clear-groups"
if $as_agent true 2> /dev/null; then
    corvo_agent_prepare nobody /config/agent /media/mmcblk0p1/ota/agent
    chown "nobody:$group" /run/corvo-agent
else
    as_agent=env
    mkdir -p -m 700 /config/agent /media/mmcblk0p1/ota/agent
    : > /var/lock/fw_printenv.lock
    chmod 664 /var/lock/fw_printenv.lock
    echo "one user"
fi
$as_agent corvo_agent --server https://localhost:1 --controller-id camera --keyring $work/pki/root.pem \
    --compatible R5C20 --version-file $work/version once 2> $work/agent.txt || [ $? = 69 ]
made
find /config/agent /media/mmcblk0p1/ota/agent /run/corvo-agent -maxdepth 0 -printf '%p %y %m %u\n' | sed 's/ nobody$/ agent/'
