# Sourced by the scripts, as . "$(dirname "$0")/lib.sh": the root of the tree becomes the working directory.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

# install PACKAGE...: those of Debian's packages that are missing.
install()
{
    scripts/setup "$@" || fail "these Debian packages cannot be had: $*"
}

# build PRESET [CMAKE OPTION...]: into build/PRESET. Two at once in one tree take turns.
build()
{
    local preset=$1 log=build/$1.log
    shift
    mkdir -p build
    (
        flock 9
        cmake --preset "$preset" "$@" && cmake --build --preset "$preset"
    ) >"$log" 2>&1 9>"build/$preset.lock" || {
        tail -40 "$log" >&2
        fail "$preset does not build: $log"
    }
}
