#!/usr/bin/env bash
# Times brickdisk's import and export on a Ceph disk (rados://) side by side
# with Ceph's own block images (`rbd import` / `rbd export`), in one run, on
# the same 2 GiB ext4 image (bench/ext4-image.sh) and the same throwaway
# cluster (scripts/ceph-test-cluster.sh, a cluster of its own in
# /tmp/brickdisk-ceph-bench, stopped at the end):
#
#   - brickdisk import into a new encrypted disk (lz4, AES-256-CBC, 512 KiB
#     bricks) in a pool of its own, and its export back to a file;
#   - rbd import of the image into a pool of its own (sparse, 4 MiB
#     objects) and rbd export back to a file.
#
# Each result is compared byte for byte with the image. The stored bytes are
# the pool's bytes in the cluster's statistics. Every step runs ROUNDS times
# (BRICKDISK_BENCH_ROUNDS, default 2), each round in new pools (the
# in-memory OSD miscounts its space after removals), and the shortest time
# counts. Prints a Markdown table.
#
#   bench/ceph-compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 5 GB. The cluster keeps its objects in memory: about
# 3 GB per round.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-2}

scripts/install-deps.sh
source bench/common.sh
find_brickdisk

export BRICKDISK_CEPH_DIR=/tmp/brickdisk-ceph-bench BRICKDISK_CEPH_RGW=0
export BRICKDISK_CEPH_STORE_BYTES=$((rounds * 2 * 1024 * 1024 * 1024 + 1024 * 1024 * 1024))
eval "$(scripts/ceph-test-cluster.sh start)"

make_work_folder brickdisk-ceph-compare "$@"
cleanup() {
  "$repo_root/scripts/ceph-test-cluster.sh" stop >/dev/null
  remove_work_folder
}
trap cleanup EXIT
cd "$work"

# pool_bytes POOL: the bytes of the pool's objects, from the cluster's pool
# statistics, which follow writes by a few seconds: read until two readings
# 6 s apart agree.
pool_bytes() {
  local before=-1 now
  while :; do
    now=$(rados df --format json | POOL=$1 python3 -c \
      'import json, os, sys; print(next(p["size_bytes"] for p in json.load(sys.stdin)["pools"] if p["name"] == os.environ["POOL"]))')
    [ "$now" = "$before" ] && break
    before=$now
    sleep 6
  done
  echo "$now"
}

make_comparison_image

for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  cat image.raw >/dev/null
  ceph osd pool create "bench-brickdisk-$round" 8 8 >/dev/null 2>&1
  ceph osd pool application enable "bench-brickdisk-$round" rados >/dev/null 2>&1
  ceph osd pool create "bench-rbd-$round" 8 8 >/dev/null 2>&1
  rbd pool init "bench-rbd-$round"
  disk=rados://bench-brickdisk-$round/disk
  "$brickdisk" create "$disk" --size 2G "${pw[@]}" >/dev/null
  timed brickdisk-import "$brickdisk" import "$disk" image.raw "${pw[@]}"
  brickdisk_stored=$(pool_bytes "bench-brickdisk-$round")
  timed brickdisk-export "$brickdisk" export "$disk" disk.raw "${pw[@]}"
  same image.raw disk.raw

  timed rbd-import rbd import --no-progress image.raw "bench-rbd-$round/image"
  rbd_stored=$(pool_bytes "bench-rbd-$round")
  timed rbd-export rbd export --no-progress "bench-rbd-$round/image" rbd.raw
  same image.raw rbd.raw
done

print_table_head
print_table_row "brickdisk import" brickdisk-import "$brickdisk_stored"
print_table_row "brickdisk export" brickdisk-export
print_table_row "rbd import" rbd-import "$rbd_stored"
print_table_row "rbd export" rbd-export
echo
echo "import speed, brickdisk / rbd: $(ratio "${took[rbd-import]}" "${took[brickdisk-import]}") (goal at least 1.5)"
echo "stored bytes, brickdisk / rbd: $(ratio "$brickdisk_stored" "$rbd_stored") (goal at most 0.5)"
echo "export speed, brickdisk / rbd: $(ratio "${took[rbd-export]}" "${took[brickdisk-export]}") (goal at least 1.0)"
