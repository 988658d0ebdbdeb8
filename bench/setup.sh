# Sourced by the scripts: what a fresh Debian 12 lacks is installed, and the program is built.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# install_packages NAME...: no output when all of them are there; status 1 when they cannot be had.
install_packages() {
  local name missing=() sudo=()
  for name in "$@"; do
    dpkg-query -W -f '${Status}\n' "$name" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$name")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" -eq 0 ] || sudo=(sudo -n)
  echo "installing: ${missing[*]}"
  {
    timeout 120 "${sudo[@]}" apt-get -o DPkg::Lock::Timeout=100 update &&
      timeout 400 "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${missing[@]}"
  } >/dev/null 2>&1 || {
    echo "these Debian packages cannot be had: ${missing[*]}" >&2
    return 1
  }
}

# build_release [CMAKE OPTION...]: the program and the stand-in receiver under build/release.
build_release() {
  install_packages cmake ninja-build g++ python3 || return 1
  mkdir -p "$root/build"
  (cd "$root" && cmake --preset release "$@" && cmake --build --preset release) >"$root/build/setup.log" 2>&1 || {
    tail -40 "$root/build/setup.log" >&2
    echo "the program does not build" >&2
    return 1
  }
}
