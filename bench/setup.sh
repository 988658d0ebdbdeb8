# Sourced by the scripts: what a fresh Debian 12 lacks is installed, and the program is built.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# install_packages NAME...: status 1 when they cannot be had.
install_packages() {
  "$root/scripts/setup" "$@" && return 0
  echo "these Debian packages cannot be had: $*" >&2
  return 1
}

# build_release [CMAKE OPTION...]: the program and the stand-in receiver under build/release.
build_release() {
  install_packages python3 || return 1
  mkdir -p "$root/build"
  (cd "$root" && cmake --preset release "$@" && cmake --build --preset release) >"$root/build/setup.log" 2>&1 || {
    tail -40 "$root/build/setup.log" >&2
    echo "the program does not build" >&2
    return 1
  }
}
