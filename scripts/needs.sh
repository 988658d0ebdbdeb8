# shellcheck shell=bash
# Sourced by the scripts beside it, which bring their own tools to a fresh Debian 12.

as_root()
{
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# needs PACKAGE...: installs those that are missing.
needs()
{
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local apt=(apt-get -qq -o DPkg::Lock::Timeout=300)
    as_root timeout 300 "${apt[@]}" update
    as_root env DEBIAN_FRONTEND=noninteractive timeout 900 \
        "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null
}

# fail WORDS: the end.
fail()
{
    echo "FAILED: $*" >&2
    exit 1
}
