#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running brickdisk
# need, when any is missing. Safe to run again: it installs nothing when all
# are present.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config
  libssl-dev zlib1g-dev liblz4-dev liblzma-dev libzstd-dev libargon2-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  clang clang-format e2fsprogs
  librados-dev libradospp-dev libcurl4-openssl-dev
  ceph-mon ceph-mgr ceph-osd ceph-common radosgw curl
  nbdkit nbdkit-plugin-dev libnbd-bin fuse3 fio qemu-utils
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
