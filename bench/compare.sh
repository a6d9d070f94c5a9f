#!/usr/bin/env bash
# Times brickdisk's import and export side by side with two other tools, in
# one run, on the same image:
#
#   - brickdisk import / export (lz4, AES-256-CBC, 512 KiB bricks, every
#     brick synced to the device), and a re-import of the image with about 5 %
#     of its bricks changed;
#   - qemu-img convert from raw to qcow2 with zstd compression, to qcow2 with
#     LUKS encryption (qcow2 cannot do both at once), and each back to raw;
#   - borg create / extract with lz4 compression and repokey encryption, and a
#     second borg create of the changed image.
#
# The image is a 2 GiB ext4 file system holding about 1 GB of the system's own
# files (bench/ext4-image.sh). Every result is compared byte for byte with the
# image it came from. Prints the times, the stored sizes and the ratios that
# the project's goals are about, as a Markdown table.
#
#   bench/compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 10 GB. Run it on a quiet machine: the script prints the
# load average before and after.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD

scripts/install-deps.sh
tools=()
command -v qemu-img >/dev/null || tools+=(qemu-utils)
command -v borg >/dev/null || tools+=(borgbackup)
if ((${#tools[@]} > 0)); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${tools[@]}"
fi

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
  -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/release -j "$(nproc)" --target brickdisk_cli
brickdisk=$repo_root/build/release/tools/brickdisk

if [ $# -ge 1 ]; then
  work=$(realpath -m "$1")
  mkdir -p "$work"
  if [ -n "$(ls -A "$work")" ]; then
    echo "compare.sh: $work is not empty" >&2
    exit 2
  fi
else
  work=$(mktemp -d "${TMPDIR:-/var/tmp}/brickdisk-compare.XXXXXX")
  trap 'rm -rf "$work"' EXIT
fi
cd "$work"

declare -A took
# timed NAME COMMAND...: runs the command after flushing earlier writes, and
# keeps its wall-clock time in seconds.
timed() {
  local name=$1
  shift
  sync
  local start end
  start=$(date +%s.%N)
  "$@" >"$work/$name.out"
  end=$(date +%s.%N)
  took[$name]=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.2f", e - s }')
  printf '  %-22s %8s s\n' "$name" "${took[$name]}"
}
apparent() { du -s -B1 --apparent-size "$1" | cut -f1; }
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
mbps() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.0f", b / 1e6 / s }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average before: $load_before"

echo "making the images"
"$repo_root/bench/ext4-image.sh" make image.raw 2G 1000000000
"$repo_root/bench/ext4-image.sh" change image.raw changed.raw 75000000
image_bytes=$(stat -c %s image.raw)
cat image.raw changed.raw >/dev/null # every tool reads from the page cache

head -c 32 /dev/urandom | base64 >password
chmod 600 password
export BORG_PASSPHRASE BORG_REPO=$work/borg BORG_BASE_DIR=$work/borg-home
BORG_PASSPHRASE=$(cat password)
qemu_secret=(--object "secret,id=sec0,file=$work/password")

echo "timing"
"$brickdisk" create disk --size 2G --password-file password >/dev/null
timed brickdisk-import "$brickdisk" import disk image.raw --password-file password
timed brickdisk-export "$brickdisk" export disk disk.raw --password-file password
brickdisk_stored=$("$brickdisk" info disk --json | sed -n 's/^ *"storedBytes": \([0-9]*\),$/\1/p')
brickdisk_folder=$(apparent disk)
"$brickdisk" snapshot disk snapshot >/dev/null
timed brickdisk-reimport "$brickdisk" import disk changed.raw --password-file password
reimport_summary=$(cat brickdisk-reimport.out)
changed_bricks=$("$brickdisk" info snapshot --json | sed -n 's/^ *"brickFiles": \([0-9]*\),$/\1/p')
"$brickdisk" create nosync --size 2G --password-file password >/dev/null
timed brickdisk-import-nosync "$brickdisk" import nosync image.raw --no-sync --password-file password

timed qemu-zstd-write qemu-img convert -f raw -O qcow2 -c -o compression_type=zstd image.raw zstd.qcow2
timed qemu-zstd-read qemu-img convert -f qcow2 -O raw zstd.qcow2 zstd.raw
timed qemu-luks-write qemu-img convert "${qemu_secret[@]}" -f raw -O qcow2 \
  -o encrypt.format=luks,encrypt.key-secret=sec0 image.raw luks.qcow2
timed qemu-luks-read qemu-img convert "${qemu_secret[@]}" --image-opts \
  driver=qcow2,file.filename=luks.qcow2,encrypt.key-secret=sec0 -O raw luks.raw

borg init --encryption=repokey >/dev/null 2>&1
timed borg-create borg create --compression lz4 ::first image.raw
borg_stored=$(apparent borg)
mkdir extract
timed borg-extract bash -c 'cd extract && borg extract --sparse ::first'
timed borg-create-changed borg create --compression lz4 ::second changed.raw

load_after=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average after: $load_after"

echo "checking every result against its image"
cmp image.raw disk.raw
cmp image.raw zstd.raw
cmp image.raw luks.raw
cmp image.raw extract/image.raw
"$brickdisk" export disk - --password-file password | cmp changed.raw -
"$brickdisk" export snapshot - --password-file password | cmp image.raw -
echo "all identical"

b=${took[brickdisk-import]}
e=${took[brickdisk-export]}
cat <<EOF

Image: 2 GiB ext4 with $(mib "$(du -s -B1 image.raw | cut -f1)") MiB in use; changed image: ${changed_bricks} of 4096 bricks differ.
Load average before / after: ${load_before} / ${load_after}.

| step | seconds | MB/s of image | stored MiB |
|---|---:|---:|---:|
| brickdisk import (synced) | $b | $(mbps "$image_bytes" "$b") | $(mib "$brickdisk_stored") |
| brickdisk import (--no-sync) | ${took[brickdisk-import-nosync]} | $(mbps "$image_bytes" "${took[brickdisk-import-nosync]}") | |
| brickdisk export | $e | $(mbps "$image_bytes" "$e") | |
| brickdisk re-import, ${changed_bricks} bricks changed | ${took[brickdisk-reimport]} | $(mbps "$image_bytes" "${took[brickdisk-reimport]}") | $(mib "$("$brickdisk" info snapshot --json | sed -n 's/^ *"storedBytes": \([0-9]*\),$/\1/p')") (snapshot) |
| qemu-img convert to qcow2, zstd | ${took[qemu-zstd-write]} | $(mbps "$image_bytes" "${took[qemu-zstd-write]}") | $(mib "$(apparent zstd.qcow2)") |
| qemu-img convert qcow2 zstd to raw | ${took[qemu-zstd-read]} | $(mbps "$image_bytes" "${took[qemu-zstd-read]}") | |
| qemu-img convert to qcow2, LUKS | ${took[qemu-luks-write]} | $(mbps "$image_bytes" "${took[qemu-luks-write]}") | $(mib "$(apparent luks.qcow2)") |
| qemu-img convert qcow2 LUKS to raw | ${took[qemu-luks-read]} | $(mbps "$image_bytes" "${took[qemu-luks-read]}") | |
| borg create, lz4, repokey | ${took[borg-create]} | $(mbps "$image_bytes" "${took[borg-create]}") | $(mib "$borg_stored") |
| borg extract | ${took[borg-extract]} | $(mbps "$image_bytes" "${took[borg-extract]}") | |
| borg create of the changed image | ${took[borg-create-changed]} | $(mbps "$image_bytes" "${took[borg-create-changed]}") | |

| goal | measured | met |
|---|---:|---|
| import at least 2x faster than borg create | $(ratio "${took[borg-create]}" "$b")x | $(awk -v r="$(ratio "${took[borg-create]}" "$b")" 'BEGIN { print (r >= 2 ? "yes" : "no") }') |
| export at least 2x faster than qemu-img read-back (zstd) | $(ratio "${took[qemu-zstd-read]}" "$e")x | $(awk -v r="$(ratio "${took[qemu-zstd-read]}" "$e")" 'BEGIN { print (r >= 2 ? "yes" : "no") }') |
| export at least 2x faster than qemu-img read-back (LUKS) | $(ratio "${took[qemu-luks-read]}" "$e")x | $(awk -v r="$(ratio "${took[qemu-luks-read]}" "$e")" 'BEGIN { print (r >= 2 ? "yes" : "no") }') |
| stored size within 5 % of borg's | $(ratio "$brickdisk_stored" "$borg_stored") (brick files), $(ratio "$brickdisk_folder" "$borg_stored") (whole folder) | $(awk -v r="$(ratio "$brickdisk_stored" "$borg_stored")" 'BEGIN { print (r >= 0.95 && r <= 1.05 ? "yes" : "no") }') |

Re-import: ${reimport_summary#imported }
EOF
