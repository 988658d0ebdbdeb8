# shellcheck shell=bash
# What the scripts share: `. "$(dirname "$0")/lib.sh"`. Goes to the root of the tree; the first failing command ends
# the script.
set -euo pipefail

# With --help a script shows the comment at its head, which begins with its usage.
if [[ ${1:-} =~ ^(-h|--help)$ ]]; then
    sed -n '2,/^$\|^[^#]/s/^# \?//p' "$0"
    exit
fi
cd "$(dirname "${BASH_SOURCE[0]}")/.."
tree=$PWD

# fail WORDS...: says what is wrong and ends the script.
fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

# install PACKAGE...: the Debian packages that are missing, of those named and those that every build needs. Takes
# root or sudo only when something is missing; one call at a time, since checks run side by side.
install()
{
    local package missing=() apt=(env DEBIAN_FRONTEND=noninteractive flock /var/lib/apt apt-get -q)
    for package in g++ cmake ninja-build libgtest-dev python3-pytest "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    [ "$(id -u)" = 0 ] || apt=(sudo "${apt[@]}")
    echo "installing ${missing[*]}"
    "${apt[@]}" update && "${apt[@]}" install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [CMAKE OPTION...]: configures and builds build/PRESET; shows the end of the log when that fails. Checks
# that run side by side take turns.
build()
{
    local log=build/$1.log
    echo "building build/$1"
    mkdir -p build
    { flock 9 && cmake --preset "$@" && cmake --build "build/$1"; } >"$log" 2>&1 9>>"$log.lock" || {
        tail -n 40 "$log"
        fail "build/$1 does not build: $log"
    }
}

# debian COMMAND...: runs apt-get or apt-cache on what Debian 12 has for every architecture that we build for, with a
# state of its own: what this machine has installed or knows of does not count.
debian()
{
    local state=$tree/build/apt
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    touch "$state/status"
    echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main" \
        >"$state/sources"
    cat >"$state/apt.conf" <<EOT
APT::Architecture "amd64";
APT::Architectures { "amd64"; "arm64"; "armel"; "armhf"; };
APT::Sandbox::User "";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::Cache "$state/cache";
Dir::Etc::sourcelist "$state/sources";
Dir::Etc::sourceparts "-";
Dir::State "$state";
Dir::State::status "$state/status";
EOT
    APT_CONFIG=$state/apt.conf flock "$state" "$@"
}

# within SECONDS COMMAND...: waits until the command succeeds; status 1 when it does not.
within()
{
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.2
    done
}
