#!/usr/bin/env bash
# Times the re-import of a changed image into a disk that has a snapshot,
# with the brickdisk programs of two commits side by side in one run, so that
# a change to how old bricks reach the snapshot can be weighed against the
# code before it.
#
#   bench/snapshot-reimport.sh OLD_REV [NEW_REV] [WORK_FOLDER]
#
# NEW_REV defaults to the work tree as it is. Each revision is built (Release)
# in a worktree of its own under WORK_FOLDER. The image is the 2 GiB ext4 image
# of bench/compare.sh and a copy with about 75 MB of files changed; in each of
# ROUNDS rounds (3 by default, BRICKDISK_BENCH_ROUNDS to change) each program
# makes a disk, imports the image (synced), takes a snapshot and re-imports the
# changed image, which is timed; the two programs take turns, and both exports
# are compared byte for byte with their images. Prints the times of every
# round, the shortest and the median of each program, and their ratio.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-3}

if [ $# -lt 1 ]; then
  echo "usage: bench/snapshot-reimport.sh OLD_REV [NEW_REV] [WORK_FOLDER]" >&2
  exit 2
fi
old_rev=$1
new_rev=${2:-}
if [ $# -ge 3 ]; then
  work=$(realpath -m "$3")
  mkdir -p "$work"
else
  work=$(mktemp -d "${TMPDIR:-/var/tmp}/brickdisk-reimport.XXXXXX")
fi
cleanup() {
  for tree in "$work"/tree-*; do
    [ -d "$tree" ] && git -C "$repo_root" worktree remove --force "$tree"
  done
  rm -rf "$work"
}
trap cleanup EXIT

scripts/install-deps.sh

# build REV NAME: builds the program of REV (the work tree when REV is empty)
# and prints its path.
build() {
  local rev=$1 name=$2 source=$repo_root
  if [ -n "$rev" ]; then
    source=$work/tree-$name
    git -C "$repo_root" worktree add --detach -q "$source" "$rev"
  fi
  cmake -S "$source" -B "$work/build-$name" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
    -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$work/build-$name" -j "$(nproc)" --target brickdisk_cli >/dev/null
  echo "$work/build-$name/tools/brickdisk"
}
old_program=$(build "$old_rev" old)
new_program=$(build "$new_rev" new)
echo "old: $old_rev ($(git -C "$repo_root" rev-parse --short "$old_rev"))"
echo "new: ${new_rev:-work tree}"

cd "$work"
tree_folder=${TMPDIR:-/var/tmp}
if [ "$(df --output=avail -B1 /dev/shm 2>/dev/null | tail -1)" -gt 3000000000 ] 2>/dev/null; then
  tree_folder=/dev/shm
fi
TMPDIR=$tree_folder "$repo_root/bench/ext4-image.sh" make image.raw 2G 1000000000
TMPDIR=$tree_folder "$repo_root/bench/ext4-image.sh" change image.raw changed.raw 75000000
sync
sleep "${BRICKDISK_BENCH_SETTLE:-20}"
head -c 32 /dev/urandom | base64 >password
pw=(--password-file password)
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"

declare -A times
# reimport NAME PROGRAM ROUND: one round of one program; appends the time.
reimport() {
  local name=$1 program=$2 round=$3
  local disk=$name-disk$round snapshot=$name-snapshot$round
  cat image.raw changed.raw >/dev/null
  "$program" create "$disk" --size 2G "${pw[@]}" >/dev/null
  "$program" import "$disk" image.raw "${pw[@]}" -q
  "$program" snapshot "$disk" "$snapshot" >/dev/null
  sync
  local start end
  start=$(date +%s.%N)
  "$program" import "$disk" changed.raw "${pw[@]}" -q
  end=$(date +%s.%N)
  local seconds
  seconds=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.3f", e - s }')
  times[$name]="${times[$name]:-} $seconds"
  "$program" export "$disk" out.raw "${pw[@]}" -q
  cmp changed.raw out.raw
  "$program" export "$snapshot" out.raw "${pw[@]}" -q
  cmp image.raw out.raw
  rm -f out.raw
  printf '  round %d %-4s re-import %s s\n' "$round" "$name" "$seconds"
}
for ((round = 1; round <= rounds; round++)); do
  if ((round % 2 == 1)); then
    reimport old "$old_program" "$round"
    reimport new "$new_program" "$round"
  else
    reimport new "$new_program" "$round"
    reimport old "$old_program" "$round"
  fi
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

stat_of() { tr ' ' '\n' <<<"$1" | sed '/^$/d' | sort -n | awk -v what="$2" '
  { v[NR] = $1 } END { if (what == "min") print v[1]; else print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
old_min=$(stat_of "${times[old]}" min) new_min=$(stat_of "${times[new]}" min)
old_median=$(stat_of "${times[old]}" median) new_median=$(stat_of "${times[new]}" median)
cat <<EOF

Re-import of the changed image into a disk with a snapshot, ${rounds} rounds, programs taking turns:

| program | shortest s | median s |
|---|---:|---:|
| old ($old_rev) | $old_min | $old_median |
| new (${new_rev:-work tree}) | $new_min | $new_median |

new / old: $(awk -v a="$new_min" -v b="$old_min" 'BEGIN { printf "%.3f", a / b }') (shortest), $(awk -v a="$new_median" -v b="$old_median" 'BEGIN { printf "%.3f", a / b }') (median)
EOF
