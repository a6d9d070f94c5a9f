#!/usr/bin/env bash
# Stored bytes and import time of brickdisk's compressors on the comparison
# image, side by side with borg, restic and qemu-img, in one run:
#
#   - `brickdisk import` of the 2 GiB ext4 comparison image (bench/ext4-image.sh)
#     into new local disks made by `brickdisk create` with each compressor
#     of COMPRESSORS ("lz4 zstd-1 zstd-2 zstd-3" by default) and each brick
#     size of BRICK_SIZES ("512K 4M"), every brick file synced; the stored
#     bytes are the import's own count of the brick files it wrote;
#   - `borg create` (lz4, repokey) and `restic backup` (--compression auto,
#     the default of restic's format 2) of the image into local
#     repositories, and `qemu-img convert` to a zstd qcow2; their stored
#     bytes are the repository's or the file's size on disk.
#
# Every step runs in each of ROUNDS rounds (3 by default,
# BRICKDISK_BENCH_ROUNDS) in the same order, so that the machine's load falls
# on all of them alike; each brickdisk disk is exported once and compared
# with the image. Prints a Markdown table of stored MiB, the median and every
# round's seconds, and each import's speed against `borg create`'s.
#
#   bench/compressor-compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 6 GB. BRICKDISK_BENCH_PROGRAM names a brickdisk
# program already built (else a Release build is made here). Installs
# borgbackup, restic and qemu-utils when missing. Waits for a quiet machine
# first, as the other comparisons do.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-3}
compressors=(${COMPRESSORS:-lz4 zstd-1 zstd-2 zstd-3})
brick_sizes=(${BRICK_SIZES:-512K 4M})
source bench/common.sh

install_missing "borg restic qemu-img" borgbackup restic qemu-utils
find_brickdisk
make_work_folder brickdisk-compressors "$@"
trap remove_work_folder EXIT
cd "$work"

wait_until_quiet
make_comparison_image
export BORG_PASSPHRASE BORG_BASE_DIR=$work/borg-home RESTIC_PASSWORD_FILE=$work/password
BORG_PASSPHRASE=$(cat password)

declare -A stored
# stored_json_bytes NAME: the storedBytes of the import's JSON summary.
stored_json_bytes() {
  python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["storedBytes"])' "$work/$1.out"
}
disk_bytes() { du -sb "$1" | cut -f1; }

echo "rounds: load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  cat image.raw >/dev/null # every command reads the image from the page cache
  for size in "${brick_sizes[@]}"; do
    for compressor in "${compressors[@]}"; do
      name=$compressor-$size
      disk=disk-$name
      "$brickdisk" create "$disk" --size 2G --brick-size "$size" --compression "$compressor" "${pw[@]}" >/dev/null
      timed "$name" "$brickdisk" import "$disk" image.raw --json "${pw[@]}"
      stored[$name]=$(stored_json_bytes "$name")
      if ((round == 1)); then
        "$brickdisk" export "$disk" disk.raw "${pw[@]}" >/dev/null
        same image.raw disk.raw
      fi
      rm -rf "$disk"
    done
  done
  export BORG_REPO=$work/borg
  borg init --encryption=repokey >/dev/null 2>&1
  timed borg-create borg create --compression lz4 ::image image.raw
  stored[borg-create]=$(disk_bytes borg)
  rm -rf borg
  restic init --repo restic >/dev/null
  timed restic-backup restic backup --repo restic --compression auto --quiet image.raw
  stored[restic-backup]=$(disk_bytes restic)
  rm -rf restic
  timed qemu-zstd qemu-img convert -f raw -O qcow2 -c -o compression_type=zstd image.raw zstd.qcow2
  stored[qemu-zstd]=$(stat -c %b zstd.qcow2)
  stored[qemu-zstd]=$((stored[qemu-zstd] * 512))
  rm -f zstd.qcow2
done
echo "rounds: load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo

borg_median=$(median borg-create)
every() { sed 's/^ //; s/ /, /g' <<<"${all[$1]}"; }
row() {
  printf '| %s | %s | %s | %s | %s |\n' "$1" "$(mib "${stored[$2]}")" "$(median "$2")" "$(every "$2")" \
    "$(ratio "$borg_median" "$(median "$2")")"
}
echo "| step | stored MiB | median s | rounds s | speed against borg create |"
echo "|---|---:|---:|---|---:|"
for size in "${brick_sizes[@]}"; do
  for compressor in "${compressors[@]}"; do
    row "brickdisk import, $compressor, $size bricks" "$compressor-$size"
  done
done
row "borg create, lz4, repokey" borg-create
row "restic backup, compression auto" restic-backup
row "qemu-img convert to qcow2, zstd" qemu-zstd
echo
echo "Quiet machine (1-minute load average at most 1.5) at the start: $quiet."
