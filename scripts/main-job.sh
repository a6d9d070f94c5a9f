#!/usr/bin/env bash
# Installs what is missing, builds brickdisk (Release) and runs the main job
# end to end with the brickdisk program:
#
#   1. a realistic disk image: an ext4 file system with a few hundred MB of
#      the system's own files and free space;
#   2. an encrypted disk (its password in a generated file), the image
#      imported into it, and a snapshot taken;
#   3. a second version of the image with a few files changed, imported into
#      the same disk (only the changed bricks are written);
#   4. both versions exported again (the second from the disk, the first from
#      the snapshot) and compared byte for byte with the originals;
#   5. both disks checked with their data, the disk described, and a table of
#      sizes and rates;
#   6. the password of the disk and its snapshot changed, and the snapshot
#      checked again with the new one.
#
# Every run works in a fresh folder under ${TMPDIR:-/var/tmp}, removed at the
# end (set BRICKDISK_KEEP_WORK=1 to keep it). Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
  -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/release -j "$(nproc)" --target brickdisk_cli
brickdisk=$PWD/build/release/tools/brickdisk

work=$(mktemp -d "${TMPDIR:-/var/tmp}/brickdisk-main-job.XXXXXX")
if [ "${BRICKDISK_KEEP_WORK:-0}" = 1 ]; then
  echo "work folder: $work (kept)"
else
  trap 'rm -rf "$work"' EXIT
fi

image_size=768M
data_bytes=300000000
change_bytes=12000000

step() { printf '\n=== %s\n' "$*"; }
now() { date +%s.%N; }
# rate BYTES START END: decimal megabytes per second.
rate() { awk -v b="$1" -v s="$2" -v e="$3" 'BEGIN { printf "%.1f", b / 1e6 / (e - s) }'; }
seconds() { awk -v s="$1" -v e="$2" 'BEGIN { printf "%.1f", e - s }'; }
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
stored_bytes() { "$brickdisk" info "$1" --json | sed -n 's/^ *"storedBytes": \([0-9]*\),$/\1/p'; }
allocated_bytes() { du -B1 -s "$1" | cut -f1; }

step "making the images: ext4, $image_size, about $((data_bytes / 1000000)) MB of files"
bench/ext4-image.sh make "$work/v1.img" "$image_size" "$data_bytes"
bench/ext4-image.sh change "$work/v1.img" "$work/v2.img" "$change_bytes"
image_bytes=$(stat -c %s "$work/v1.img")

step "creating an encrypted disk"
head -c 32 /dev/urandom | base64 >"$work/password"
chmod 600 "$work/password"
pw=(--password-file "$work/password")
"$brickdisk" create "$work/disk" --size "$image_size" "${pw[@]}"

step "importing the first version"
t0=$(now)
"$brickdisk" import "$work/disk" "$work/v1.img" "${pw[@]}"
t1=$(now)

step "taking a snapshot"
"$brickdisk" snapshot "$work/disk" "$work/snapshot" "${pw[@]}"

step "importing the second version (a few files changed)"
t2=$(now)
"$brickdisk" import "$work/disk" "$work/v2.img" "${pw[@]}"
t3=$(now)

step "exporting both versions and comparing them with the originals"
t4=$(now)
"$brickdisk" export "$work/disk" "$work/v2.exported" "${pw[@]}"
t5=$(now)
"$brickdisk" export "$work/snapshot" "$work/v1.exported" "${pw[@]}"
cmp "$work/v2.img" "$work/v2.exported"
cmp "$work/v1.img" "$work/v1.exported"
echo "both exports are identical to their originals"

step "checking both disks, data included"
t6=$(now)
"$brickdisk" check "$work/disk" --read-data "${pw[@]}"
t7=$(now)
"$brickdisk" check "$work/snapshot" --read-data "${pw[@]}"

step "the disk"
"$brickdisk" info "$work/disk"

step "changing the password of the disk and its snapshot (headers only)"
head -c 32 /dev/urandom | base64 >"$work/new-password"
chmod 600 "$work/new-password"
"$brickdisk" passwd "$work/disk" "${pw[@]}" --new-password-file "$work/new-password"
"$brickdisk" check "$work/snapshot" --read-data --password-file "$work/new-password"

step "summary"
{
  printf '%-42s %10s %10s\n' "what" "MiB" "MB/s"
  printf '%-42s %10s %10s\n' "image (ext4, files and free space)" "$(mib "$image_bytes")" ""
  printf '%-42s %10s %10s\n' "image, blocks in use" "$(mib "$(allocated_bytes "$work/v1.img")")" ""
  printf '%-42s %10s %10s\n' "disk: brick files" "$(mib "$(stored_bytes "$work/disk")")" ""
  printf '%-42s %10s %10s\n' "snapshot: brick files" "$(mib "$(stored_bytes "$work/snapshot")")" ""
  printf '%-42s %10s %10s\n' "import, first version ($(seconds "$t0" "$t1") s)" "" "$(rate "$image_bytes" "$t0" "$t1")"
  printf '%-42s %10s %10s\n' "import, second version ($(seconds "$t2" "$t3") s)" "" "$(rate "$image_bytes" "$t2" "$t3")"
  printf '%-42s %10s %10s\n' "export ($(seconds "$t4" "$t5") s)" "" "$(rate "$image_bytes" "$t4" "$t5")"
  printf '%-42s %10s %10s\n' "check --read-data, brick files ($(seconds "$t6" "$t7") s)" "" "$(rate "$(stored_bytes "$work/disk")" "$t6" "$t7")"
} | tee "$work/summary.txt"
echo
echo "main job done: both versions came back byte for byte"
