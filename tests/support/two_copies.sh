# Usage: two_copies.sh SLOT PARTITION... . Gives the simulated camera two copies of these partitions, if it
# has one of each, and links the names as a start of this slot does.
set -e
checkout=$(cd "$(dirname "$0")/../.." && pwd)
slot=$1
shift
cd /dev/block/by-name
for name; do
    [ -e "${name}_b" ] || { mv "$name" "${name}_a" && cp "${name}_a" "${name}_b"; }
done
mkdir -p /etc/corvo
printf '%s\n' "doubled = $*" 'slot-from = command-line' 'word-a = slot=A' 'word-b = slot=B' > /etc/corvo/slots.conf
echo "slot=$slot" > /run/command_line
[ "$(cat /proc/cmdline)" = "slot=$slot" ] || mount --bind /run/command_line /proc/cmdline
exec sh "$checkout/packaging/corvo_slots" link
