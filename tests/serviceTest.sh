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

property() { systemctl show -P "$1" "navtwine${2:-}"; }
is() { [ "$(property "$1" "${3:-}")" = "$2" ]; }
no() { ! "$@"; } # a bare ! would not end the script
log() { journalctl --no-pager -o cat -u navtwine "$@"; }
logged() { log "${@:2}" | grep -F -- "$1" >/dev/null; } # not -q, which could break the pipe
setOptions() # not 0 when the service did not start
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
setPackage() { apt-get -qq "$@" </dev/null >/dev/null; } # nobody is there to answer a question

echo "--- the receiver's sentences come to gpsd over TCP"
PATH=/try/receiver:$PATH /try/receiver/navtwine -e --server --server-port 5446 --interval 1 \
    --gga --rmc --gsa --gsv --gll --vtg --zda --gbs 2>/try/receiver/log &
within 10 grep -q waiting /try/receiver/log
sed -i 's|^DEVICES=.*|DEVICES="tcp://127.0.0.1:5446"|; s|^GPSD_OPTIONS=.*|GPSD_OPTIONS="-n"|' /etc/default/gpsd
systemctl restart gpsd
files >/try/before

echo "--- installed, it serves nobody"
setPackage install -y "$package"
[ "$(stat -c '%a %U' $options)" = "600 root" ]
[ "$(systemd-analyze verify --man=no navtwine.service navtwine@a.service 2>&1)" = "" ]
systemctl --quiet is-enabled navtwine
within 10 logged "usage: navtwine"
within 10 is MainPID 0
is Result success

echo "--- serves the sentences of the real gpsd"
setOptions "--server --server-passwd 'two words' --id-prefix 'my boat ' --interval 1 --gga"
# What is ordered after the service finds the port open.
exec 3<>/dev/tcp/127.0.0.1/5445
printf 'two words\r\n' >&3
lines=$(timeout 40 head -n 3 <&3)
echo "a client reads: $lines"
[[ $lines == PASSWORD*OK*"my boat \$GNGGA,"* ]]

echo "--- systemctl status says who is there"
told() { property StatusText | grep -F -- "$1" >/dev/null; }
within 20 told "server: 1 client, 0 lost"
no told "gga 0"
echo "status: $(property StatusText)"

echo "--- runs in its sandbox"
pid=$(property MainPID)
user=$(stat -c %u "/proc/$pid")
[ "$user" -ge 61184 ] # the users that systemd makes up
[ "$user" -le 65519 ]
grep -qE '^CapBnd:\s0+$' "/proc/$pid/status"
grep -qE "^Groups:.*\b$(getent group dialout | cut -d: -f3)\b" "/proc/$pid/status"
grep -qE '^Max open files\s+4096\s+4096' "/proc/$pid/limits"
grep -qE '^Max core file size\s+0\s+0' "/proc/$pid/limits"
no grep -qaF two "/proc/$pid/cmdline"

echo "--- comes back after a crash, with one gpspipe"
kill -KILL "$pid"
within 20 no is MainPID "$pid"
within 20 is SubState running
within 10 pgrep -x -U "$user" gpspipe >/dev/null
[ "$(pgrep -cx -U "$user" gpspipe)" = 1 ]

echo "--- stops in order"
systemctl stop navtwine
is Result success
logged "execution complete"
no pgrep -x -U "$user" gpspipe

echo "--- a misspelt option fails, with its reason in the log"
no setOptions "--server --gag"
is Result exit-code
within 10 logged "Unknown, or without its value: --gag[ABORTING EXECUTION]"

echo "--- reports a missing device as an error, and tries again"
setOptions "--serial /dev/ttyS99 --gga" || true # it may have been ready before it opened the device
within 10 logged "failed to open /dev/ttyS99: errno: 2" -p err
within 10 is SubState auto-restart

# A serial port as Debian has it, root's and dialout's. There is no chip behind it, so that opening it must fail,
# but not for want of a permission (1, 13). Whether the unit keeps other devices away does not show here: the
# kernel's device filter is not at the service of a system that is itself a guest.
echo "--- may open a serial port"
setOptions "-e --serial /try/ttyS3 --gga" || true
within 10 logged "failed to open /try/ttyS3: errno: "
log | no grep -E 'ttyS3: errno: (1|13)$'

echo "--- an update keeps the options without a question, and restarts the service and its instances"
setOptions "--server --gga"
echo 'NAVTWINE_OPTIONS="--server --server-port 5447 --gga"' >$options-two
systemctl --quiet enable --now navtwine@two
mkdir /etc/systemd/system/navtwine@two.service.d
printf '[Service]\nLimitNOFILE=99\n' >/etc/systemd/system/navtwine@two.service.d/override.conf
before=$(property MainPID @two)
dpkg-deb --raw-extract "$package" /try/next
sed -i 's/^Version: .*/&+next/' /try/next/DEBIAN/control
dpkg-deb --build /try/next /try/next.deb
setPackage install -y /try/next.deb
grep -q '"--server --gga"' $options
[ "$(stat -c %a $options)" = 600 ]
within 10 is SubState running
within 10 is SubState running @two
no is MainPID "$before" @two

echo "--- a removal leaves what its owner has made of it, with which it goes on; a purge leaves nothing"
setPackage remove -y navtwine
no pgrep -U "$user"
wanted=/etc/systemd/system/multi-user.target.wants
comm -13 /try/before <(files) | diff - <(printf '%s\n' $options{,-two} $wanted/navtwine{,@two}.service \
    /etc/systemd/system/navtwine@two.service.d{,/override.conf} | sort)
setPackage install -y "$package"
within 10 is SubState running @two
setPackage purge -y navtwine
files | diff /try/before -
no systemctl cat navtwine

echo "--- installed again, it is as new"
setPackage install -y "$package"
systemctl --quiet is-enabled navtwine
no systemctl --quiet is-enabled navtwine@two
grep -qx 'NAVTWINE_OPTIONS=""' $options
