#!/usr/bin/env bash
# How close brickdisk's import, export and re-import come to what this
# machine allows, in one run on one image:
#
#   1. makes the 2 GiB ext4 comparison image (bench/ext4-image.sh) and a copy
#      with files of up to 75 MB in all changed, and imports the image into a
#      disk made by `brickdisk create` (lz4, AES-256-GCM, 512 KiB bricks,
#      Argon2id-wrapped key);
#   2. runs bench/ImportExportLimit on them, which times every stage of the
#      three commands on one thread and derives each command's two-core
#      limit (its opening comment states the model);
#   3. times `brickdisk import` into a new disk, `export` back to a raw file
#      and, after a snapshot, the re-import of the changed image, in each of
#      ROUNDS rounds (3 by default, BRICKDISK_BENCH_ROUNDS to change), and
#      `borg create` (lz4, repokey) and qemu-img's read-back of a zstd qcow2
#      when those tools are installed;
#   4. prints the stage table and a Markdown table of each command's median
#      and every round, its limit and its share of the limit (limit / median),
#      and the processor seconds the command spent (median of the rounds,
#      user and system) next to those the model gives it.
#
#   bench/limit.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 6 GB. Before it starts, the script waits up to
# BRICKDISK_BENCH_QUIET_WAIT seconds (1200) for a 1-minute load average of at
# most 1.5, and prints the load before and after each part. Set
# BRICKDISK_BENCH_BUILD to a build folder configured with
# -DBRICKDISK_BUILD_BENCH=ON to use its programs instead of a Release build
# made here, and BRICKDISK_BENCH_COLD=1 to also time reading the image with
# its pages dropped from the page cache.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${BRICKDISK_BENCH_ROUNDS:-3}
source bench/common.sh

build=${BRICKDISK_BENCH_BUILD:-}
if [ -n "$build" ]; then
  # The script changes folder; a relative path must still name the build.
  build=$(realpath "$build")
else
  build=$repo_root/build/release
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
    -DBRICKDISK_BUILD_EXAMPLES=OFF -DBRICKDISK_BUILD_BENCH=ON >/dev/null
  cmake --build "$build" -j "$(nproc)" --target brickdisk_cli ImportExportLimit
fi
brickdisk=$build/tools/brickdisk
stage_program=$build/bench/ImportExportLimit

make_work_folder brickdisk-limit "$@"
trap remove_work_folder EXIT
cd "$work"
load() { cut -d' ' -f1-3 /proc/loadavg; }

wait_until_quiet
make_comparison_image
"$repo_root/bench/ext4-image.sh" change image.raw changed.raw 75000000
"$brickdisk" create measured --size 2G "${pw[@]}" >/dev/null
"$brickdisk" import measured image.raw "${pw[@]}" >/dev/null
# Making the images leaves much to write back; the measurements wait for it.
sync
sleep "${BRICKDISK_BENCH_SETTLE:-30}"

echo "stages: load average before: $(load)"
mkdir stage-scratch
cold=()
[ "${BRICKDISK_BENCH_COLD:-0}" = 1 ] && cold=(--cold)
"$stage_program" image.raw measured password stage-scratch --changed changed.raw "${cold[@]}" >stages.md
echo "stages: load average after: $(load)"
limit_of() { sed -n "s/^limit $1 //p" stages.md; }
model_cpu_of() { sed -n "s/^cpu $1 //p" stages.md; }
# cpu_timed NAME COMMAND...: timed, also noting the command's processor
# seconds (user and system) in NAME.cpu, one line per round.
cpu_timed() { timed "$1" /usr/bin/time -f "%U %S" -a -o "$work/$1.cpu" "${@:2}"; }
median_cpu() { awk '{ print $1 + $2 }' "$work/$1.cpu" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

with_borg=0 with_qemu=0
command -v borg >/dev/null && with_borg=1
command -v qemu-img >/dev/null && with_qemu=1
if ((with_borg)); then
  export BORG_PASSPHRASE BORG_BASE_DIR=$work/borg-home
  BORG_PASSPHRASE=$(cat password)
fi

echo "rounds: load average before: $(load)"
for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  cat image.raw changed.raw >/dev/null # every command reads the images from the page cache
  disk=disk$round
  "$brickdisk" create "$disk" --size 2G "${pw[@]}" >/dev/null
  cpu_timed import "$brickdisk" import "$disk" image.raw "${pw[@]}"
  cpu_timed export "$brickdisk" export "$disk" disk.raw "${pw[@]}"
  same image.raw disk.raw
  "$brickdisk" snapshot "$disk" "snapshot$round" "${pw[@]}" >/dev/null
  cpu_timed reimport "$brickdisk" import "$disk" changed.raw "${pw[@]}"
  if ((with_borg)); then
    export BORG_REPO=$work/borg$round
    borg init --encryption=repokey >/dev/null 2>&1
    borg_create borg-create first image.raw
  fi
  ((with_qemu == 0)) || qemu_zstd_round_trip qemu-zstd image.raw
done
echo "rounds: load average after: $(load)"
echo

every() { sed 's/^ //; s/ /, /g' <<<"${all[$1]}"; }
share() { awk -v l="$1" -v t="$2" 'BEGIN { printf "%.0f %%", 100 * l / t }'; }
row() {
  local limit
  limit=$(limit_of "$2")
  printf '| %s | %s | %s | %s | %s | %s | %s |\n' "$1" "$(median "$2")" "$(every "$2")" "$limit" \
    "$(share "$limit" "$(median "$2")")" "$(median_cpu "$2")" "$(model_cpu_of "$2")"
}
cat stages.md
echo
echo "| command | median s | rounds s | two-core limit s | share of the limit | CPU s (median) | model's CPU s |"
echo "|---|---:|---|---:|---:|---:|---:|"
row "brickdisk import" import
row "brickdisk export" export
row "brickdisk re-import, changed image" reimport
((with_borg == 0)) || printf '| borg create, lz4, repokey | %s | %s | | | | |\n' "$(median borg-create)" "$(every borg-create)"
((with_qemu == 0)) || printf '| qemu-img convert qcow2 zstd to raw | %s | %s | | | | |\n' "$(median qemu-zstd-read)" \
  "$(every qemu-zstd-read)"
echo
echo "Re-import: $(sed 's/^imported //' "$work/reimport.out")"
echo "Quiet machine (1-minute load average at most 1.5) at the start: $quiet."
