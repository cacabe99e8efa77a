# shellcheck shell=bash
# install_packages NAME...: installs the Debian packages that are missing and
# says so; as root, or through sudo.
install_packages() {
  local missing=() name as_root=()
  for name in "$@"; do
    if ! dpkg-query -W -f='${db:Status-Status}\n' "$name" 2>/dev/null |
      grep -qx installed; then
      missing+=("$name")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "Please install as root: ${missing[*]}" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "Installing Debian packages: ${missing[*]}"
  "${as_root[@]}" apt-get update -q >/dev/null
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy \
    --no-install-recommends "${missing[@]}" >/dev/null
}
