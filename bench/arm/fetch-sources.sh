#!/usr/bin/env bash
# Unpacks, under $1, the two Debian source packages the aarch64 count needs:
# qemu (only for its TCG plug-in header) and libyuv. Adds deb-src lines for the
# suites already in the apt sources when there are none (needs root then).
set -euo pipefail
out="$1"
mkdir -p "$out"
cd "$out"
if ! apt-get indextargets --format '$(CREATED_BY)' 2>/dev/null | grep -q '^Sources$'; then
  src=/etc/apt/sources.list.d/qrv-deb-src.sources
  if [ ! -f "$src" ]; then
    echo "Adding deb-src lines for Debian's main suites ($src)"
    [ "$(id -u)" -eq 0 ] || { echo "error: adding apt sources needs root" >&2; exit 1; }
    codename="$(. /etc/os-release && echo "$VERSION_CODENAME")"
    cat >"$src" <<SOURCES
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: $codename $codename-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg

Types: deb-src
URIs: http://deb.debian.org/debian-security
Suites: $codename-security
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SOURCES
  fi
  apt-get update -q
fi
# qemu's source package is large; only its plug-in header is kept.
if [ ! -f qemu-plugin.h ]; then
  rm -rf qemu-src && mkdir qemu-src
  (cd qemu-src && apt-get source -o APT::Sandbox::User=root --download-only -q qemu >/dev/null)
  tarball="$(ls qemu-src/qemu_*.orig.tar.* | head -n 1)"
  tar -xf "$tarball" -O --wildcards '*/include/qemu/qemu-plugin.h' >qemu-plugin.h.part
  mv qemu-plugin.h.part qemu-plugin.h
  ls qemu-src/*.dsc | sed 's|.*/||' >qemu-version.txt
  rm -rf qemu-src
fi
if [ ! -d libyuv ]; then
  rm -rf libyuv-src && mkdir libyuv-src
  (cd libyuv-src && apt-get source -o APT::Sandbox::User=root -q libyuv >/dev/null)
  mv "$(find libyuv-src -mindepth 1 -maxdepth 1 -type d | head -n 1)" libyuv
  ls libyuv-src/*.dsc | sed 's|.*/||' >libyuv-version.txt
  rm -rf libyuv-src
fi
