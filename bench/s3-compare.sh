#!/usr/bin/env bash
# Times brickdisk's import and export on an s3:// disk side by side with two
# other ways of keeping a disk image encrypted and compressed in an S3
# bucket, in one run, on the same 2 GiB ext4 image (bench/ext4-image.sh) and
# the same radosgw (scripts/ceph-test-cluster.sh, a cluster of its own in
# /tmp/brickdisk-s3-bench, stopped at the end), each in a bucket of its own:
#
#   - brickdisk import into a new encrypted disk (lz4, AES-256-CBC) and its
#     export back to a file, once for each brick size in
#     BRICKDISK_BENCH_BRICK_SIZES ("512K 4M" by default: create's default
#     and bricks eight times larger, so eight times fewer objects);
#   - restic backup of the image into an S3 repository (format 2: encrypted,
#     compressed with --compression auto) and restic restore of it;
#   - s3backer (--encrypt, which compresses too; 512 KiB blocks, as the
#     bricks) mounted with FUSE: the image copied into its file (dd conv=fsync, then the
#     unmount, which waits until every block is stored), and read back from a
#     new mount.
#
# Each result is compared byte for byte with the image. The stored bytes are
# the bucket's bytes (radosgw-admin bucket stats). Every step runs ROUNDS
# times (BRICKDISK_BENCH_ROUNDS, default 1), each round in new buckets, and
# the shortest time counts. Prints a Markdown table. Installs restic,
# s3backer and fuse3 when missing (restic and s3backer are the benchmark's
# alone).
#
#   bench/s3-compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 5 GB. The cluster keeps its objects in memory: about
# 1 GB per round for each brick size and for each of the three peers' buckets.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-1}
read -r -a brick_sizes <<<"${BRICKDISK_BENCH_BRICK_SIZES:-512K 4M}"
declare -A brickdisk_stored

scripts/install-deps.sh
source bench/common.sh
install_missing "restic s3backer fusermount" restic s3backer fuse3
[ -e /dev/fuse ] || { echo "s3-compare: s3backer needs /dev/fuse" >&2; exit 1; }

find_brickdisk

start_s3_cluster brickdisk-s3-bench $((rounds * (3 + ${#brick_sizes[@]}) * 1024 * 1024 * 1024 + 1024 * 1024 * 1024))

make_work_folder brickdisk-s3-compare "$@"
mounted=
cleanup() {
  [ -z "$mounted" ] || fusermount -u "$mounted" 2>/dev/null || true
  stop_s3_cluster
  remove_work_folder
}
trap cleanup EXIT
cd "$work"

s3backer_import() {
  s3backer_mount "$1" "$2" "$image_bytes"
  dd if=image.raw of="$2/file" bs=4M conv=fsync,notrunc status=none
  s3backer_unmount "$2"
}
s3backer_export() {
  s3backer_mount "$1" "$2" "$image_bytes"
  dd if="$2/file" of="$3" bs=4M status=none
  s3backer_unmount "$2"
}

make_comparison_image
export RESTIC_PASSWORD_FILE=$work/password RESTIC_CACHE_DIR=$work/restic-cache

for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  cat image.raw >/dev/null
  for bucket in restic s3backer; do make_bucket "bench-$bucket-$round"; done

  for size in "${brick_sizes[@]}"; do
    bucket=bench-brickdisk-${size,,}-$round
    make_bucket "$bucket"
    disk=s3://$bucket/disk
    "$brickdisk" --s3-endpoint "$AWS_ENDPOINT_URL" create "$disk" --size 2G --brick-size "$size" "${pw[@]}" >/dev/null
    timed "brickdisk-$size-import" "$brickdisk" --s3-endpoint "$AWS_ENDPOINT_URL" import "$disk" image.raw "${pw[@]}"
    brickdisk_stored[$size]=$(bucket_bytes "$bucket")
    timed "brickdisk-$size-export" "$brickdisk" --s3-endpoint "$AWS_ENDPOINT_URL" export "$disk" disk.raw "${pw[@]}"
    same image.raw disk.raw
  done

  export RESTIC_REPOSITORY=s3:$AWS_ENDPOINT_URL/bench-restic-$round
  restic init --repository-version 2 >/dev/null
  rm -rf "$RESTIC_CACHE_DIR"
  timed restic-backup restic backup --compression auto image.raw
  restic_stored=$(bucket_bytes "bench-restic-$round")
  rm -rf "$RESTIC_CACHE_DIR" restored
  timed restic-restore restic restore latest --target restored
  same image.raw restored/image.raw

  timed s3backer-import s3backer_import "bench-s3backer-$round" "$work/mnt"
  s3backer_stored=$(bucket_bytes "bench-s3backer-$round")
  timed s3backer-export s3backer_export "bench-s3backer-$round" "$work/mnt" s3backer.raw
  same image.raw s3backer.raw
done

print_table_head
for size in "${brick_sizes[@]}"; do
  print_table_row "brickdisk import, $size bricks" "brickdisk-$size-import" "${brickdisk_stored[$size]}"
  print_table_row "brickdisk export, $size bricks" "brickdisk-$size-export"
done
print_table_row "restic backup" restic-backup "$restic_stored"
print_table_row "restic restore" restic-restore
print_table_row "s3backer copy in" s3backer-import "$s3backer_stored"
print_table_row "s3backer read back" s3backer-export
echo
for size in "${brick_sizes[@]}"; do
  for goal in "restic-backup import 2" "s3backer-import import 3" "restic-restore export 2"; do
    read -r other ours least <<<"$goal"
    ours=brickdisk-$size-$ours
    r=$(ratio "${took[$other]}" "${took[$ours]}")
    echo "$ours faster than $other by $r (goal at least $least: $(at_least "$r" "$least"))"
  done
done
echo "every time (s):"
for name in "${!all[@]}"; do echo "  $name:${all[$name]}"; done
