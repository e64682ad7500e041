#!/usr/bin/env bash
# Installs the Debian packages listed in cmake/debian-packages.txt (or in the
# list given as the argument) that are missing, and says which.
set -euo pipefail
list="${1:-$(dirname "$0")/../debian-packages.txt}"
missing=()
while read -r package; do
  package="${package%%#*}"
  package="${package// /}"
  [ -z "$package" ] && continue
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done <"$list"
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing missing Debian packages: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "error: installing packages needs root; run as root or install them yourself" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"
