#!/usr/bin/env bash
# The installed service as the owner of a device uses it: runs inside the clean root that scripts/check-package boots.
# The first command that fails ends it; then /try/log has the trace of the last commands, and the service's log.
#
# /try/receiver has a navtwine with the stand-in gpspipe: the receiver behind gpsd. The service gets the real gpspipe.
# shellcheck source=scripts/lib.sh
. "$(dirname "$0")/lib.sh"
export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive
package=$(echo /try/navtwine_*_amd64.deb)
options=/etc/default/navtwine

explain()
{
    [ $? != 0 ] || return 0
    set +x
    echo "FAILED; the last commands:"
    tail -n 20 /try/trace
    journalctl --no-pager -u navtwine -n 30
}
trap explain EXIT
exec >/try/log 2>/try/trace
set -x

property() { systemctl show -P "$1" navtwine; }
is() { [ "$(property "$1")" = "$2" ]; }
no() { ! "$@"; } # a bare ! would not end the script
log() { journalctl --no-pager -o cat -u navtwine "$@"; }
logged() { log "${@:2}" | grep -F -- "$1" >/dev/null; } # not -q, which could break the pipe
setOptions()
{
    sed -i "s|^NAVTWINE_OPTIONS=.*|NAVTWINE_OPTIONS=\"$1\"|" $options
    systemctl restart navtwine
}
files()
{
    # What lies there comes and goes whatever is installed.
    local passing='/(proc|sys|dev|run|tmp|try|var/(cache|log|tmp|lib/(apt|dpkg|systemd)))'
    find / -xdev -regextype egrep -regex "$passing" -prune -o -print | sort
}

echo "--- the receiver's sentences come to gpsd over TCP"
PATH=/try/receiver:$PATH /try/receiver/navtwine -e --server --server-port 5446 --interval 1 \
    --gga --rmc --gsa --gsv --gll --vtg --zda --gbs 2>/try/receiver/log &
within 10 grep -q waiting /try/receiver/log
sed -i 's|^DEVICES=.*|DEVICES="tcp://127.0.0.1:5446"|; s|^GPSD_OPTIONS=.*|GPSD_OPTIONS="-n"|' /etc/default/gpsd
systemctl restart gpsd
files >/try/before

echo "--- installed, it serves nobody"
apt-get -qq install -y "$package" >/dev/null
[ "$(stat -c '%a %U' $options)" = "600 root" ]
[ "$(systemd-analyze verify --man=no navtwine.service 2>&1)" = "" ]
systemctl --quiet is-enabled navtwine
within 10 logged "usage: navtwine"
within 10 is MainPID 0
is Result success

echo "--- serves the sentences of the real gpsd"
setOptions "--server --server-passwd 'two words' --id-prefix 'my boat ' --interval 1 --gga"
within 10 logged "waiting for client connections..."
exec 3<>/dev/tcp/127.0.0.1/5445
printf 'two words\r\n' >&3
lines=$(timeout 40 head -n 3 <&3)
echo "a client reads: $lines"
[[ $lines == PASSWORD*OK*"my boat \$GNGGA,"* ]]

echo "--- runs in its sandbox"
pid=$(property MainPID)
user=$(stat -c %u "/proc/$pid")
[ "$user" -ge 61184 ] # the users that systemd makes up
[ "$user" -le 65519 ]
grep -qE '^CapBnd:\s0+$' "/proc/$pid/status"
grep -qE "^Groups:.*\b$(getent group dialout | cut -d: -f3)\b" "/proc/$pid/status"
grep -qE '^Max open files\s+4096\s+4096' "/proc/$pid/limits"
no grep -qaF two "/proc/$pid/cmdline"
resident=$(awk '/^VmRSS/ { print $2 }' "/proc/$pid/status")
echo "resident: $resident KiB of 4096 allowed"
[ "$resident" -le 4096 ]

echo "--- its errors are errors in the system log"
exec 3<>/dev/tcp/127.0.0.1/5445
printf 'a\nb\nc\n' >&3
within 10 logged "failed to login." -p err
exec 3>&-

echo "--- comes back after a crash, with one gpspipe"
kill -KILL "$pid"
within 20 no is MainPID "$pid"
within 20 is SubState running
within 10 pgrep -x -U "$user" gpspipe >/dev/null
[ "$(pgrep -cx -U "$user" gpspipe)" = 1 ]

echo "--- stops in order"
begin=$SECONDS
systemctl stop navtwine
[ $((SECONDS - begin)) -le 5 ]
is Result success
logged "execution complete"
no pgrep -x -U "$user" gpspipe

echo "--- reports a bad option, and a missing device"
setOptions "--baud 1200"
within 10 logged "Invalid baud value 1200[ABORTING EXECUTION]"
within 10 is SubState auto-restart
setOptions "-e --serial /dev/ttyS99 --gga"
within 10 logged "failed to open /dev/ttyS99: errno: 2"

# A serial port as Debian has it, root's and dialout's. There is no chip behind it, so that opening it must fail,
# but not for want of a permission (1, 13). Whether the unit keeps other devices away does not show here: the
# kernel's device filter is not at the service of a system that is itself a guest.
echo "--- may open a serial port"
setOptions "-e --serial /try/ttyS3 --gga"
within 10 logged "failed to open /try/ttyS3: errno: "
log | no grep -E 'ttyS3: errno: (1|13)$'

echo "--- keeps the options when upgraded"
setOptions "--server --gga"
apt-get -qq install -y --reinstall "$package" >/dev/null
grep -q '"--server --gga"' $options
[ "$(stat -c %a $options)" = 600 ]
within 10 is SubState running

echo "--- leaves nothing but, until it is purged, its options and whether it was enabled"
apt-get -qq remove -y navtwine >/dev/null
no pgrep -U "$user"
comm -13 /try/before <(files) | diff - <(echo "$options
/etc/systemd/system/multi-user.target.wants/navtwine.service")
apt-get -qq purge -y navtwine >/dev/null
files | diff /try/before -
no systemctl cat navtwine
