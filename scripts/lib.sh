# Shared by the scripts of this folder, which source it and run in the project's top folder.
# shellcheck shell=bash

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

build_packages=(g++ cmake ninja-build pkg-config libgtest-dev libcli11-dev nlohmann-json3-dev librapidxml-dev
  python3-lxml python3-jinja2)

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# Installs those of the named Debian packages that are missing, as root or through sudo.
require_packages() {
  local package status missing=() as_root=()
  for package in "$@"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || status=absent
    [[ $status == installed ]] || missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  printf 'installing %s\n' "${missing[*]}"
  if ((EUID != 0)); then
    command -v sudo >/dev/null || die "root or sudo is needed to install ${missing[*]}"
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures and builds, without a target everything.
build() {
  local preset=$1
  shift
  require_packages "${build_packages[@]}"
  cmake --preset "$preset"
  cmake --build --preset "$preset" ${1+--target "$@"}
}
