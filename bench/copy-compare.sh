#!/usr/bin/env bash
# Times brickdisk copy, the offsite backup of a disk and its snapshots, side
# by side with two other ways of sending the same backups to an S3 bucket and
# back, in one run, on the 2 GiB ext4 image (bench/ext4-image.sh) and the same
# radosgw (scripts/ceph-test-cluster.sh, a cluster of its own in
# /tmp/brickdisk-copy-bench, stopped at the end):
#
#   - brickdisk copy of a local disk with three snapshots (the image, then
#     three changed versions of it with about 75 MB of files rewritten each
#     time, bench/ext4-image.sh change) to an s3:// disk, and back to a new
#     local folder;
#   - restic copy of a local repository holding the same four versions
#     (format 2, --compression auto) to a repository in a bucket (made with
#     the local one's chunker parameters) and back to a new local repository;
#   - rclone copy of the folder of the brickdisk chain to a bucket and back.
#
# Then the incremental copy: one more changed version imported into the
# disk (backed up into the restic repository, for rclone the changed
# folder), and each copy sent again to the bucket of its first copy.
#
# The copies back are exported (restored) and compared byte for byte with the
# newest image. brickdisk and rclone send 8 files at once. Every step runs
# ROUNDS times (BRICKDISK_BENCH_ROUNDS, default 3), each round into new
# buckets, which are deleted at its end; the median counts. Prints a Markdown
# table and the users' goals: the copy at least 1.5 times as fast as the
# faster of restic and rclone, the incremental copy at least 10 times as fast
# as the first. Installs restic and rclone when missing (they are the
# benchmark's alone).
#
#   bench/copy-compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 14 GB. The cluster keeps its objects in memory: about
# 4 GB during a round.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-3}
jobs=8

scripts/install-deps.sh
source bench/common.sh
install_missing "restic rclone" restic rclone

find_brickdisk

start_s3_cluster brickdisk-copy-bench $((6 * 1024 * 1024 * 1024))

make_work_folder brickdisk-copy-compare "$@"
cleanup() {
  stop_s3_cluster
  remove_work_folder
}
trap cleanup EXIT
cd "$work"

bd() { "$brickdisk" --s3-endpoint "$AWS_ENDPOINT_URL" "$@"; }

# rclone reaches the service as the remote "bench".
export RCLONE_CONFIG_BENCH_TYPE=s3 RCLONE_CONFIG_BENCH_PROVIDER=Ceph RCLONE_CONFIG_BENCH_ENDPOINT=$AWS_ENDPOINT_URL
export RCLONE_CONFIG_BENCH_ACCESS_KEY_ID=$AWS_ACCESS_KEY_ID RCLONE_CONFIG_BENCH_SECRET_ACCESS_KEY=$AWS_SECRET_ACCESS_KEY
export RCLONE_CONFIG_BENCH_REGION=us-east-1
# A CA bundle named in the environment for other tools makes rclone's S3
# client fail; the endpoint is plain HTTP.
rclone_copy() { env -u AWS_CA_BUNDLE rclone copy --transfers "$jobs" --checkers "$jobs" "$1" "$2"; }

make_comparison_image
echo "making the changed versions"
"$repo_root/bench/ext4-image.sh" change image.raw v1.raw 75000000
"$repo_root/bench/ext4-image.sh" change v1.raw v2.raw 75000000
"$repo_root/bench/ext4-image.sh" change v2.raw v3.raw 75000000
"$repo_root/bench/ext4-image.sh" change v3.raw v4.raw 75000000

echo "making the chain and the restic repository"
bd create src/disk --size 2G "${pw[@]}" >/dev/null
export RESTIC_PASSWORD_FILE=$work/password RESTIC_FROM_PASSWORD_FILE=$work/password
export RESTIC_CACHE_DIR=$work/restic-cache
# brickdisk keeps the records of its copies (what each bucket holds) here,
# not in the user's cache folder.
export XDG_CACHE_HOME=$work/cache
restic -r restic-src init --repository-version 2 >/dev/null
versions=(image.raw v1.raw v2.raw v3.raw)
for i in 0 1 2 3; do
  bd import src/disk "${versions[$i]}" "${pw[@]}" -q
  ((i == 3)) || bd snapshot src/disk "src/s$((i + 1))" "${pw[@]}" >/dev/null
  cp "${versions[$i]}" disk.raw
  restic -r restic-src backup --compression auto disk.raw >/dev/null
done
rm -f disk.raw
chain_bytes=$(du -sb src | cut -f1)
bd du src/disk

for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  for name in brickdisk restic rclone; do make_bucket "bench-$name-$round"; done
  find src -type f -exec cat {} + >/dev/null

  timed brickdisk-copy bd copy src/disk "s3://bench-brickdisk-$round/src/disk" --jobs "$jobs"
  stored_brickdisk=$(bucket_bytes "bench-brickdisk-$round")
  rm -rf back
  timed brickdisk-copy-back bd copy "s3://bench-brickdisk-$round/src/disk" back/disk --jobs "$jobs"
  bd export back/disk back.raw "${pw[@]}" -q
  same v3.raw back.raw

  rm -rf "$RESTIC_CACHE_DIR"
  restic -r "s3:$AWS_ENDPOINT_URL/bench-restic-$round" init --from-repo restic-src --copy-chunker-params \
    --repository-version 2 >/dev/null
  timed restic-copy restic -r "s3:$AWS_ENDPOINT_URL/bench-restic-$round" copy --from-repo restic-src
  stored_restic=$(bucket_bytes "bench-restic-$round")
  rm -rf "$RESTIC_CACHE_DIR" restic-back restored
  restic -r restic-back init --from-repo "s3:$AWS_ENDPOINT_URL/bench-restic-$round" --copy-chunker-params \
    --repository-version 2 >/dev/null
  timed restic-copy-back restic -r restic-back copy --from-repo "s3:$AWS_ENDPOINT_URL/bench-restic-$round"
  restic -r restic-back restore latest --target restored >/dev/null
  same v3.raw restored/disk.raw

  timed rclone-copy rclone_copy src "bench:bench-rclone-$round/src"
  stored_rclone=$(bucket_bytes "bench-rclone-$round")
  rm -rf rclone-back
  timed rclone-copy-back rclone_copy "bench:bench-rclone-$round/src" rclone-back
  bd export rclone-back/disk back.raw "${pw[@]}" -q
  same v3.raw back.raw

  # One more version, on copies of the sources, sent again.
  rm -rf src-next restic-next
  cp -a src src-next
  cp -a restic-src restic-next
  bd import src-next/disk v4.raw "${pw[@]}" -q
  cp v4.raw disk.raw
  restic -r restic-next backup --compression auto disk.raw >/dev/null
  rm -f disk.raw
  timed brickdisk-incremental bd copy src-next/disk "s3://bench-brickdisk-$round/src/disk" --jobs "$jobs" --json
  grep -E '"(filesSent|bytesSent|filesSkipped)"' "$work/brickdisk-incremental.out" | tr -d ' ,' | paste -sd' '
  rm -rf "$RESTIC_CACHE_DIR"
  timed restic-incremental restic -r "s3:$AWS_ENDPOINT_URL/bench-restic-$round" copy --from-repo restic-next
  timed rclone-incremental rclone_copy src-next "bench:bench-rclone-$round/src"
  rm -rf back
  bd copy "s3://bench-brickdisk-$round/src/disk" back/disk --jobs "$jobs" >/dev/null
  bd export back/disk back.raw "${pw[@]}" -q
  same v4.raw back.raw

  for name in brickdisk restic rclone; do remove_bucket "bench-$name-$round"; done
done

echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "Chain of the disk and three snapshots: $(mib "$chain_bytes") MiB in its folder; $rounds rounds, medians."
echo
echo "| step | median s | shortest s | longest s | MiB in the bucket |"
echo "|---|---:|---:|---:|---:|"
row() {
  local stored=""
  [ -z "${3:-}" ] || stored=$(mib "$3")
  echo "| $1 | $(median "$2") | $(shortest "$2") | $(longest "$2") | $stored |"
}
row "brickdisk copy to s3://" brickdisk-copy "$stored_brickdisk"
row "restic copy to S3" restic-copy "$stored_restic"
row "rclone copy to S3" rclone-copy "$stored_rclone"
row "brickdisk copy back" brickdisk-copy-back
row "restic copy back" restic-copy-back
row "rclone copy back" rclone-copy-back
row "brickdisk incremental copy" brickdisk-incremental
row "restic incremental copy" restic-incremental
row "rclone incremental copy" rclone-incremental
echo
faster() { awk -v a="$(median "$1")" -v b="$(median "$2")" 'BEGIN { print (a < b ? a : b) }'; }
r=$(ratio "$(faster restic-copy rclone-copy)" "$(median brickdisk-copy)")
echo "brickdisk copy faster than the faster of restic and rclone by $r (goal at least 1.5: $(at_least "$r" 1.5))"
r=$(ratio "$(faster restic-copy-back rclone-copy-back)" "$(median brickdisk-copy-back)")
echo "brickdisk copy back faster than the faster of restic and rclone by $r (goal at least 1.5: $(at_least "$r" 1.5))"
r=$(ratio "$(median brickdisk-copy)" "$(median brickdisk-incremental)")
echo "brickdisk incremental copy faster than the first by $r (goal at least 10: $(at_least "$r" 10))"
echo "every time (s):"
for name in "${!all[@]}"; do echo "  $name:${all[$name]}"; done
