#!/bin/bash
# Runs inside the clean root that scripts/check-package boots: installs the package, uses it as the owner of a
# device would, and takes it away again. The last line of /try/log is "all well" when nothing failed.
#
# /try/receiver is the stand-in gpspipe, which plays the receiver behind gpsd; navtwine gets the real gpspipe.
set -uo pipefail
exec >/try/log 2>&1
export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive
package=$(echo /try/navtwine_*_amd64.deb)
options=/etc/default/navtwine

fail()
{
    echo "FAILED: $*"
    journalctl --no-pager -u navtwine -n 30
    exit 1
}

# within SECONDS COMMAND...: waits until the command succeeds.
within()
{
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.2
    done
}

property() { systemctl show -P "$1" navtwine; }
is() { [ "$(property "$1")" = "$2" ]; }
logged() { journalctl --no-pager -o cat -u navtwine "${@:2}" | grep -qF -- "$1"; }
setOptions() { sed -i "s|^NAVTWINE_OPTIONS=.*|NAVTWINE_OPTIONS=\"$1\"|" $options && systemctl restart navtwine; }
files() { find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /try \
    -o -path /var/log -o -path /var/lib/dpkg -o -path /var/lib/systemd -o -path /var/tmp \
    -o -path /var/cache \) -prune -o -print | sort; }

installsWithoutServingAnybody()
{
    apt-get -qq install -y "$package" >/dev/null || fail "the package does not install"
    [ "$(stat -c '%a %U' $options)" = "600 root" ] || fail "$options: $(stat -c '%a %U' $options)"
    local words
    words=$(systemd-analyze verify --man=no navtwine.service 2>&1)
    [ -z "$words" ] || fail "the unit has faults: $words"
    systemctl is-enabled navtwine || fail "the service is not enabled"
    within 10 logged "usage: navtwine" || fail "without options there is no usage text in the log"
    is Result success || fail "without options: $(property Result)"
    is MainPID 0 || fail "something runs without options"
}

firstSentence()
{
    # The login of the listening side, then the first line of the stream.
    exec 3<>/dev/tcp/127.0.0.1/5445 || return 1
    local line
    read -r -t 10 line <&3
    printf 'two words\r\n' >&3
    read -r -t 10 line <&3
    read -r -t 20 line <&3
    exec 3>&-
    echo "$line"
}

servesThroughTheRealGpsd()
{
    setOptions "--server --server-passwd 'two words' --id-prefix 'my boat ' --interval 1 --gga"
    within 10 logged "waiting for client connections..." || fail "the server does not listen"
    local line
    line=$(firstSentence)
    case $line in
        "my boat \$GNGGA,"*) echo "a client reads: $line" ;;
        *) fail "a client reads '$line' instead of a GGA sentence" ;;
    esac
}

runsInTheSandbox()
{
    local pid
    pid=$(property MainPID)
    user=$(stat -c %u /proc/"$pid")
    # The range of users that systemd makes up.
    { [ "$user" -ge 61184 ] && [ "$user" -le 65519 ]; } || fail "runs as user $user"
    grep -qE '^CapBnd:\s0+$' /proc/"$pid"/status || fail "has privileges"
    grep -qE '^Max open files\s+4096\s+4096' /proc/"$pid"/limits || fail "the limit of files is not the unit's"
    grep -qaF 'two' /proc/"$pid"/cmdline && fail "the password stands on the command line"
    grep -qE "^Groups:.*\b$(getent group dialout | cut -d: -f3)\b" /proc/"$pid"/status || fail "not in dialout"
    local resident
    resident=$(awk '/^VmRSS/ { print $2 }' /proc/"$pid"/status)
    echo "resident: $resident KiB of 4096 allowed"
    [ "$resident" -le 4096 ] || fail "takes too much memory"
    # Through /dev/log, so with a priority of its own.
    exec 4<>/dev/tcp/127.0.0.1/5445
    printf 'a\nb\nc\n' >&4
    within 10 logged "failed to login." -p err || fail "no error in the system log"
    exec 4>&-
}

comesBackAfterACrash()
{
    local pid
    pid=$(property MainPID)
    kill -KILL "$pid"
    within 20 is SubState running || fail "is not started again"
    within 20 test "$(property MainPID)" != "$pid" || fail "is not started again"
    within 10 pgrep -x -U "$user" gpspipe >/dev/null || fail "no gpspipe after the new start"
    [ "$(pgrep -cx -U "$user" gpspipe)" = 1 ] || fail "the crashed program's gpspipe is still there"
}

stopsInOrder()
{
    local begin=$SECONDS
    systemctl stop navtwine
    [ $((SECONDS - begin)) -le 5 ] || fail "took $((SECONDS - begin)) seconds to stop"
    is Result success || fail "ended with $(property Result), status $(property ExecMainStatus)"
    logged "execution complete" || fail "did not end in order"
    pgrep -x -U "$user" gpspipe && fail "left gpspipe behind"
    return 0
}

reportsABadOption()
{
    setOptions "--baud 1200"
    within 10 logged "Invalid baud value 1200[ABORTING EXECUTION]" || fail "the bad value is not in the log"
    within 10 is SubState auto-restart || fail "is $(property SubState) after a bad value"
    setOptions "-e --serial /dev/ttyS99 --gga"
    within 10 logged "failed to open /dev/ttyS99: errno: 2" || fail "the missing device is not in the log"
}

# A serial port as Debian has it, root's and dialout's. There is no chip behind it, so that opening it must fail,
# but not for want of a permission (1, 13). Whether the unit keeps other devices away does not show here: the
# kernel's device filter is not at the service of a system that is itself a guest.
mayOpenASerialPort()
{
    setOptions "-e --serial /try/ttyS3 --gga"
    within 10 logged "failed to open /try/ttyS3: errno: " || fail "no word of the serial port"
    if journalctl --no-pager -o cat -u navtwine | grep -E 'ttyS3: errno: (1|13)$'; then
        fail "may not open a serial port"
    fi
}

keepsTheOptionsWhenUpgraded()
{
    setOptions "--server --gga"
    apt-get -qq install -y --reinstall "$package" >/dev/null || fail "the package does not install over itself"
    grep -q '"--server --gga"' $options || fail "the upgrade lost the options"
    [ "$(stat -c %a $options)" = 600 ] || fail "the upgrade changed the mode of the options"
    within 10 is SubState running || fail "does not run after the upgrade"
}

leavesNothing()
{
    apt-get -qq remove -y navtwine >/dev/null || fail "the package cannot be removed"
    pgrep -U "$user" && fail "runs on after its removal"
    comm -13 /try/before <(files) >/try/left
    # Debian keeps what the user wrote, and whether the service was enabled, until the package is purged.
    diff /try/left - <<<"$options
/etc/systemd/system/multi-user.target.wants/navtwine.service" || fail "removed, it leaves the above"
    apt-get -qq purge -y navtwine >/dev/null || fail "the package cannot be purged"
    files | diff /try/before - || fail "purged, it leaves the above"
    systemctl cat navtwine && fail "systemd still knows the unit"
    return 0
}

# The receiver's sentences come to gpsd over TCP.
startReceiver()
{
    mkdir -p /tmp/receiver
    cp /try/receiver /tmp/receiver/gpspipe
    cp /try/navtwine /tmp/receiver/
    PATH=/tmp/receiver:$PATH /tmp/receiver/navtwine -e --server --server-port 5446 --interval 1 \
        --gga --rmc --gsa --gsv --gll --vtg --zda --gbs >/tmp/receiver/log 2>&1 &
    within 10 grep -q waiting /tmp/receiver/log || fail "no receiver"
    sed -i 's|^DEVICES=.*|DEVICES="tcp://127.0.0.1:5446"|' /etc/default/gpsd
    sed -i 's|^GPSD_OPTIONS=.*|GPSD_OPTIONS="-n"|' /etc/default/gpsd
    systemctl restart gpsd || fail "gpsd does not start"
}

for step in startReceiver "before" installsWithoutServingAnybody servesThroughTheRealGpsd runsInTheSandbox \
    comesBackAfterACrash stopsInOrder reportsABadOption mayOpenASerialPort keepsTheOptionsWhenUpgraded leavesNothing; do
    echo "--- $step"
    if [ "$step" = before ]; then files >/try/before; else $step; fi
done
echo "all well"
