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
mkdir -p build

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
    { flock 9 && cmake --preset "$@" && cmake --build "build/$1"; } >"$log" 2>&1 9>>"$log.lock" || {
        tail -n 40 "$log"
        fail "build/$1 does not build: $log"
    }
}

# What the machine's own sources have of its release; without updates, which may be incomplete for a foreign
# architecture.
machinesSources()
{
    local release
    # shellcheck source=/dev/null
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    mkdir -p build/apt/{lists/partial,cache/archives/partial,sources}
    find /etc/apt/sources.list* -name '*.list' -exec cat {} + | grep -E "^deb .* $release( |\$)" \
        >build/apt/sources/own.list || true
    find /etc/apt/sources.list.d -name '*.sources' -exec awk -v RS= -v ORS='\n\n' -v release="$release" \
        '$0 ~ "(^|\n)Suites:([^\n]* )?" release "( |\n|$)" { sub(/Suites:[^\n]*/, "Suites: " release); print }' {} + \
        >build/apt/sources/own.sources
    cat build/apt/sources/own.* | grep -q . || fail "/etc/apt has no source of $release"
}

# debian COMMAND...: runs apt-get or apt-cache for every architecture that we build for, with the machine's sources,
# keys and proxies, but a state of its own: what this machine has installed does not count.
debian()
{
    local state=$tree/build/apt
    (cd "$tree" && machinesSources)
    touch "$state/status"
    flock "$state" "$1" -o Dir::State="$state" -o Dir::State::status="$state/status" -o Dir::Cache="$state/cache" \
        -o Dir::Etc::sourcelist=- -o Dir::Etc::sourceparts="$state/sources" -o APT::Sandbox::User= \
        -o APT::Architectures=amd64,arm64,armel,armhf -o Acquire::Languages=none -o Acquire::Retries=3 "${@:2}"
}

# debianRoot DIRECTORY OPTION...: makes a root file system of this machine's release, by mmdebstrap with the OPTIONs and
# with the machine's sources, keys and proxies. Root only.
debianRoot()
{
    machinesSources
    apt-config dump | grep -E '^Acquire::(http|https|ftp|Check-)' >build/apt/acquire || true
    mmdebstrap --mode=root --aptopt="$tree/build/apt/acquire" "${@:2}" "" "$1" build/apt/sources/own.*
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
