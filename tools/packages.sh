# shellcheck shell=bash
# What ./run-demo and ./run-tests share before they build.

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
  # Another run may be reading the lists just now; they needn't be the newest.
  "${as_root[@]}" apt-get update -q >/dev/null || true
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy \
    -o DPkg::Lock::Timeout=600 --no-install-recommends "${missing[@]}" \
    >/dev/null
}

# leave_read_only_checkout ARGUMENT...: where nothing can be built in, goes on
# with the same script in a copy of the checkout.
leave_read_only_checkout() {
  if [ ! -w . ]; then
    go_on_in_copy "This checkout can't be written to" "$@"
  fi
}

# leave_path_with_blanks ARGUMENT...: the same where the path holds a blank or a
# colon, which the path of a preloaded library can't.
leave_path_with_blanks() {
  if [[ $PWD == *[[:blank:]:]* ]]; then
    go_on_in_copy "The path of this checkout holds blanks or colons" "$@"
  fi
}

go_on_in_copy() {
  local reason=$1 copy
  shift
  copy=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/vellumcraft-setup
  copy=$copy/$(pwd | cksum | tr ' ' -)
  echo "$reason; working in its copy $copy"
  mkdir -p "$copy"
  find "$copy" -mindepth 1 -maxdepth 1 ! -name 'build*' -exec rm -rf {} +
  tar -c --exclude='./build*' . | tar -x -C "$copy"
  exec "$copy/${0##*/}" "$@"
}

# wait_for_turn FILE: returns when no other run holds the lock; it lasts as long
# as descriptor 9 is open.
wait_for_turn() {
  exec 9>"$1"
  if ! flock -n 9; then
    echo "Waiting for another run in this checkout ..."
    flock 9
  fi
}
