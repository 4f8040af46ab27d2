# shellcheck shell=bash
# What the examples share: installs the named packages that are missing, as root; otherwise names
# them.
install_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [[ ${#missing[@]} -eq 0 ]] && return
  if [[ $(id -u) -ne 0 ]]; then
    echo "$0: install these packages first: ${missing[*]}" >&2
    exit 2
  fi
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get -qq update
  apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null
}
