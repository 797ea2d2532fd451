#!/usr/bin/env bash
# vsftpd, pure-ftpd and proftpd conflict as Debian packages (each provides "ftp-server"), so only
# one can be installed at a time. The tests need all three: proftpd-basic is installed as usual,
# and vsftpd and pure-ftpd are unpacked (not installed) under /opt/quillon-ftpd/<package>, where
# tests/support/FtpServers.cpp looks for them. Their libraries are ordinary packages in
# debian-packages.txt. Does nothing when both are unpacked already.
set -euo pipefail
dest=${QUILLON_FTPD_ROOT:-/opt/quillon-ftpd}
pkgs=()
[ -x "$dest/vsftpd/usr/sbin/vsftpd" ] || pkgs+=(vsftpd)
[ -x "$dest/pure-ftpd/usr/sbin/pure-ftpd" ] || pkgs+=(pure-ftpd)
[ ${#pkgs[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" != 0 ]; then
  if command -v sudo >/dev/null; then sudo="sudo"; else
    echo "quillon: cannot unpack ${pkgs[*]} into $dest (run as root)" >&2
    exit 1
  fi
fi
work=$(mktemp -d)
chmod 777 "$work"
trap 'rm -rf "$work"' EXIT
echo "Unpacking FTP servers for the tests: ${pkgs[*]}" >&2
(cd "$work" && apt-get download "${pkgs[@]}" >&2)
for pkg in "${pkgs[@]}"; do
  deb=$(ls "$work"/"${pkg}"_*.deb)
  $sudo mkdir -p "$dest/$pkg"
  $sudo dpkg-deb -x "$deb" "$dest/$pkg"
done
