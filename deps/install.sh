#!/usr/bin/env bash
# Installs the Debian packages of deps/debian-packages.txt that serve any of the given purposes
# (build, test, bench) and are not installed yet. Does nothing when all are present.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
purposes=("$@")
[ ${#purposes[@]} -gt 0 ] || purposes=(build)

missing=()
while read -r pkg rest; do
  case "$pkg" in ''|'#'*) continue ;; esac
  wanted=0
  for p in "${purposes[@]}"; do
    for r in $rest; do [ "$r" = "$p" ] && wanted=1; done
  done
  [ $wanted = 1 ] || continue
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done < "$here/debian-packages.txt"

unpack_ftp_servers() {
  for p in "${purposes[@]}"; do
    case "$p" in test|bench) "$here/unpack-ftp-servers.sh"; return ;; esac
  done
}
if [ ${#missing[@]} -eq 0 ]; then unpack_ftp_servers; exit 0; fi

sudo=""
if [ "$(id -u)" != 0 ]; then
  if command -v sudo >/dev/null; then sudo="sudo"; else
    echo "quillon: missing Debian packages: ${missing[*]} (run as root to install them)" >&2
    exit 1
  fi
fi
echo "Installing Debian packages: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
# Installing FTP server packages must not start system daemons on port 21: the tests run their own.
policy_added=0
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
  $sudo chmod +x /usr/sbin/policy-rc.d
  policy_added=1
fi
cleanup() { [ $policy_added = 1 ] && $sudo rm -f /usr/sbin/policy-rc.d; true; }
trap cleanup EXIT
$sudo apt-get update -qq >&2
if ! $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2; then
  # A held or half-upgraded package can sink the whole set; try them one by one.
  for pkg in "${missing[@]}"; do
    $sudo apt-get install -y -qq --no-install-recommends "$pkg" >&2
  done
fi
unpack_ftp_servers
