# Runs an upgrade inside a root of its own and prints what the service and its daemon leave for others
# to reach, while they wait and afterwards: name, kind, mode and owner of each. Arguments: folder of the
# programs, umask.
set -e
PATH=$1:$PATH
umask "$2"
for partition in kernel nv_factory; do head -c 100000 /dev/zero > /dev/block/by-name/$partition; done
mkdir -p /media/mmcblk0p1/ota
head -c 50000 /dev/urandom > /media/mmcblk0p1/ota/kernel.bin
printf '#!/bin/sh\necho bootsystem=A\n' > /camera/bin/fw_printenv
chmod 755 /camera/bin/fw_printenv
sleep 0.02
touch /run/mark
sleep 0.02

made() {
    find / -xdev -newer /run/mark ! -type d ! -path '/run/*' ! -path '/dev/*' -printf '%p %y %m %u\n'
    awk 'FNR > 1 { sub(".*/", "", FILENAME); print "queue of /tmp", FILENAME, $3, "uid" $8 }' /proc/sysvipc/msg
    awk 'FNR > 1 { sub(".*/", "", FILENAME); print "other", FILENAME, $3, "uid" $5 }' /proc/sysvipc/sem /proc/sysvipc/shm
}

system_call_daemon > /run/daemon.txt 2>&1 &
corvo_upgrade > /run/service.txt 2>&1 &
service=$!
until grep -q "wait for ota message" /run/service.txt; do sleep 0.1; done
made
otactl send files --dir /media/mmcblk0p1/ota/ kernel > /dev/null
until ! kill -0 $service 2> /dev/null; do sleep 0.2; done
made

"$(dirname "$0")/../../scripts/make_pki" /run/pki > /run/pki.txt 2>&1
corvo_agent --server https://localhost:1 --controller-id camera --keyring /run/pki/root.pem \
    --compatible R5C20 --version-file none once \
    2> /run/agent.txt || [ $? = 69 ]
made
