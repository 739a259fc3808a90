# shellcheck shell=bash
# Shared by the scripts beside it; sourced, never run.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

say() { printf '\n== %s\n' "$*"; }
fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# What building takes, as Debian and as Homebrew call it; the scripts add what else they need. macOS itself has SQLite,
# which Homebrew's pkg-config knows of.
debian_packages=(g++ cmake ninja-build pkg-config libfmt-dev nlohmann-json3-dev libplist-dev libutf8proc-dev
  libre2-dev libsqlite3-dev libsystemd-dev libcli11-dev procps)
brew_packages=(cmake ninja pkg-config fmt nlohmann-json libplist utf8proc re2 cli11)

missing_debian_packages() {
  local package
  for package in "$@"; do
    dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q 'install ok installed' || printf '%s\n' "$package"
  done
}

install_debian_packages() {
  local missing as_root=()
  mapfile -t missing < <(missing_debian_packages "$@")
  [ "${#missing[@]}" -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "these packages are missing and neither root nor sudo is at hand: ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing what is missing: ${missing[*]}"
  "${as_root[@]}" apt-get update -q || fail "apt-get update failed"
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" ||
    fail "installing ${missing[*]} failed"
}

install_brew_packages() {
  local package missing=()
  for package in "$@"; do brew list --versions "$package" >/dev/null 2>&1 || missing+=("$package"); done
  [ "${#missing[@]}" -eq 0 ] && return
  say "Installing what is missing: ${missing[*]}"
  brew install "${missing[@]}" || fail "installing ${missing[*]} failed"
}

# install_missing: installs those of debian_packages (or brew_packages) that are not there.
install_missing() {
  if command -v apt-get >/dev/null; then
    install_debian_packages "${debian_packages[@]}"
  elif command -v brew >/dev/null; then
    install_brew_packages "${brew_packages[@]}"
  else
    fail "neither apt-get nor brew is here; install by hand: ${debian_packages[*]}"
  fi
}

# build PRESET [TARGET...]: configures and builds into build/PRESET.
build() {
  local preset=$1
  shift
  say "Building ($preset)"
  local log="build/$preset-configure.log"
  mkdir -p build
  cmake --preset "$preset" >"$log" 2>&1 || { cat "$log" >&2; fail "configuring failed"; }
  if [ "$#" -gt 0 ]; then
    cmake --build --preset "$preset" --target "$@" || fail "the build failed"
  else
    cmake --build --preset "$preset" || fail "the build failed"
  fi
}
