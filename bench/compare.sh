#!/usr/bin/env bash
# Times brickdisk's import and export side by side with two other tools, in
# one run, on the same image:
#
#   - brickdisk import / export (lz4, AES-256-CBC, 512 KiB bricks with SHA-256
#     digests, every brick synced to the device), and a re-import of the image
#     with about 5 % of its bricks changed; for reference also an import
#     without syncing and an import and export of a disk whose bricks carry
#     MD5 digests;
#   - qemu-img convert from raw to qcow2 with zstd compression, to qcow2 with
#     LUKS encryption (qcow2 cannot do both at once), and each back to raw;
#   - borg create / extract with lz4 compression and repokey encryption, and a
#     second borg create of the changed image.
#
# The image is a 2 GiB ext4 file system holding about 1 GB of the system's own
# files (bench/ext4-image.sh). Every step runs in each of ROUNDS rounds (2 by
# default, BRICKDISK_BENCH_ROUNDS to change) and its shortest time counts;
# every result is compared byte for byte with the image it came from and then
# removed, so that no step pays for the page cache of another. Prints the
# times, the stored sizes and the ratios that the project's goals are about,
# as Markdown tables.
#
#   bench/compare.sh [WORK_FOLDER]
#
# WORK_FOLDER (default: a fresh folder under ${TMPDIR:-/var/tmp}, removed at
# the end) needs about 4 GB per round. Run it on a quiet machine: the script
# prints the load average before and after.
#
#   bench/compare.sh --formats [WORK_FOLDER]
#
# instead times brickdisk alone, its two disk formats side by side on the same
# image: import and export of a disk made by `create` (authenticated bricks,
# HMAC-SHA256 bound to the brick index, Argon2id-wrapped key), of the same
# with a key derivation of 1 pass over 8 MiB ("quickkey", which separates
# the per-brick cost from the derivation's), and of one made by `create --kdf
# pbkdf2` (SHA-256 brick digests, PBKDF2 key), in interleaved rounds (5 by
# default; the order of the formats alternates)
# so that the machine's load falls on both alike. Prints the median, the
# shortest and the longest time of each step, the ratio of the medians, and
# the time and peak memory of opening each disk (mostly its key derivation).
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
mode=tools
if [ "${1:-}" = "--formats" ]; then
  mode=formats
  shift
fi
if [ "$mode" = formats ]; then
  rounds=${BRICKDISK_BENCH_ROUNDS:-5}
else
  rounds=${BRICKDISK_BENCH_ROUNDS:-2}
fi

scripts/install-deps.sh
source bench/common.sh
tools=()
if [ "$mode" = tools ]; then
  command -v qemu-img >/dev/null || tools+=(qemu-utils)
  command -v borg >/dev/null || tools+=(borgbackup)
fi
((${#tools[@]} == 0)) || install_packages "${tools[@]}"

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

declare -A open_seconds open_kib
# timed_retry NAME COMMAND...: like timed, trying up to three times: qemu-img's
# LUKS set-up times its key derivation on the thread's CPU clock and gives up
# ("Unable to get accurate CPU usage") when a round is too quick for that
# clock to move. Its key derivation uses SHA-512 here, whose rounds take long
# enough that this rarely happens.
timed_retry() {
  local attempt
  for attempt in 1 2 3; do
    if timed "$@"; then
      return 0
    fi
    echo "  (attempt $attempt of $1 failed)"
  done
  return 1
}
apparent() { du -s -B1 --apparent-size "$1" | cut -f1; }
json_number() { "$brickdisk" info "$1" --json | sed -n "s/^ *\"$2\": \\([0-9]*\\),\$/\\1/p"; }

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average before: $load_before"

echo "making the images"
# The copies of the files that go into the images live in memory when there
# is room, so that their removal leaves no recently freed inodes behind here.
tree_folder=${TMPDIR:-/var/tmp}
if [ "$(df --output=avail -B1 /dev/shm 2>/dev/null | tail -1)" -gt 3000000000 ] 2>/dev/null; then
  tree_folder=/dev/shm
fi
TMPDIR=$tree_folder "$repo_root/bench/ext4-image.sh" make image.raw 2G 1000000000
TMPDIR=$tree_folder "$repo_root/bench/ext4-image.sh" change image.raw changed.raw 75000000
image_bytes=$(stat -c %s image.raw)
# Making the images leaves gigabytes to write back and memory to free; the
# first tool timed would pay for that, so the machine settles first.
sync
sleep "${BRICKDISK_BENCH_SETTLE:-30}"
head -c 32 /dev/urandom | base64 >password
chmod 600 password
export BORG_PASSPHRASE BORG_BASE_DIR=$work/borg-home
BORG_PASSPHRASE=$(cat password)
qemu_secret=(--object "secret,id=sec0,file=$work/password")
pw=(--password-file password)

# The two disk formats side by side (--formats).
if [ "$mode" = formats ]; then
  # "quickkey": the authenticated format with a key derivation of 1 pass
  # over 8 MiB, which tells the per-brick cost from the derivation's.
  formats=(authenticated quickkey original)
  declare -A create_args=([authenticated]="" [quickkey]="--kdf-passes 1 --kdf-memory 8M" [original]="--kdf pbkdf2")
  for ((round = 1; round <= rounds; round++)); do
    echo "round $round of $rounds"
    cat image.raw >/dev/null
    order=("${formats[@]}")
    ((round % 2 == 0)) && order=(original quickkey authenticated)
    for format in "${order[@]}"; do
      # shellcheck disable=SC2086 # the arguments are meant to split
      "$brickdisk" create "$format$round" --size 2G ${create_args[$format]} "${pw[@]}" >/dev/null
      timed "$format-import" "$brickdisk" import "$format$round" image.raw "${pw[@]}"
      timed "$format-export" "$brickdisk" export "$format$round" "$format.raw" "${pw[@]}"
      same image.raw "$format.raw"
    done
  done
  # Opening an empty disk is reading its header and deriving its key.
  for format in authenticated original; do
    # shellcheck disable=SC2086
    "$brickdisk" create "empty-$format" --size 2G ${create_args[$format]} "${pw[@]}" >/dev/null
    for ((i = 1; i <= 5; i++)); do
      /usr/bin/time -f "%e %M" -o "open-$format.$i" "$brickdisk" check "empty-$format" --read-data "${pw[@]}" >/dev/null
    done
    open_seconds[$format]=$(cat open-"$format".* | cut -d' ' -f1 | sort -n | sed -n 3p)
    open_kib[$format]=$(cat open-"$format".* | cut -d' ' -f2 | sort -n | tail -1)
  done
  load_after=$(cut -d' ' -f1-3 /proc/loadavg)
  frow() {
    local format
    for format in "${formats[@]}"; do
      printf '| %s, %s | %s | %s-%s | %s |\n' "$1" "$format" "$(median "$format-$1")" "$(shortest "$format-$1")" \
        "$(longest "$format-$1")" "$(ratio "$(median "$format-$1")" "$(median "original-$1")")"
    done
  }
  passes=$("$brickdisk" info empty-authenticated --json | sed -n 's/^ *"keyDerivationIterations": \([0-9]*\),$/\1/p')
  echo
  echo "Image: 2 GiB ext4 with $(mib "$(du -s -B1 image.raw | cut -f1)") MiB in use. ${rounds} interleaved rounds."
  echo "Load average before / after: ${load_before} / ${load_after}."
  echo
  echo "| step, format | median s | range s | median / original's |"
  echo "|---|---:|---|---:|"
  frow import
  frow export
  echo
  echo "| opening an empty disk (median of 5) | seconds | peak memory MiB |"
  echo "|---|---:|---:|"
  echo "| authenticated (Argon2id, $passes passes, 64 MiB) | ${open_seconds[authenticated]} | $(mib $((open_kib[authenticated] * 1024))) |"
  echo "| original (PBKDF2-HMAC-SHA1, 10000 iterations) | ${open_seconds[original]} | $(mib $((open_kib[original] * 1024))) |"
  exit 0
fi

# Each round works in folders of its own, and nothing of the brick folders is
# deleted before the end: on ext4, creating files soon after many were
# deleted is slower (new inodes avoid recently freed ones), which would burden
# the one tool here that stores many files with the others' clean-up.
for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds"
  cat image.raw changed.raw >/dev/null # every tool reads the images from the page cache
  disk=disk$round snapshot=snapshot$round
  export BORG_REPO=$work/borg$round

  "$brickdisk" create "$disk" --size 2G "${pw[@]}" >/dev/null
  timed brickdisk-import "$brickdisk" import "$disk" image.raw "${pw[@]}"
  brickdisk_stored=$(json_number "$disk" storedBytes)
  brickdisk_folder=$(apparent "$disk")
  timed brickdisk-export "$brickdisk" export "$disk" disk.raw "${pw[@]}"
  same image.raw disk.raw
  "$brickdisk" snapshot "$disk" "$snapshot" "${pw[@]}" >/dev/null
  timed brickdisk-reimport "$brickdisk" import "$disk" changed.raw "${pw[@]}"
  "$brickdisk" export "$disk" disk.raw "${pw[@]}" >/dev/null
  same changed.raw disk.raw
  "$brickdisk" export "$snapshot" disk.raw "${pw[@]}" >/dev/null
  same image.raw disk.raw
  snapshot_stored=$(json_number "$snapshot" storedBytes)
  changed_bricks=$(json_number "$snapshot" brickFiles)

  "$brickdisk" create "nosync$round" --size 2G "${pw[@]}" >/dev/null
  timed brickdisk-import-nosync "$brickdisk" import "nosync$round" image.raw --no-sync "${pw[@]}"
  "$brickdisk" create "md5-$round" --size 2G --kdf pbkdf2 --checksum md5 "${pw[@]}" >/dev/null
  timed brickdisk-import-md5 "$brickdisk" import "md5-$round" image.raw "${pw[@]}"
  timed brickdisk-export-md5 "$brickdisk" export "md5-$round" md5.raw "${pw[@]}"
  same image.raw md5.raw

  qemu_zstd_round_trip qemu-zstd image.raw
  timed_retry qemu-luks-write qemu-img convert "${qemu_secret[@]}" -f raw -O qcow2 \
    -o encrypt.format=luks,encrypt.key-secret=sec0,encrypt.hash-alg=sha512 image.raw luks.qcow2
  timed qemu-luks-read qemu-img convert "${qemu_secret[@]}" --image-opts \
    driver=qcow2,file.filename=luks.qcow2,encrypt.key-secret=sec0 -O raw luks.raw
  same image.raw luks.raw

  borg init --encryption=repokey >/dev/null 2>&1
  borg_create borg-create first image.raw
  borg_stored=$(apparent "$BORG_REPO")
  mkdir "extract$round"
  timed borg-extract bash -c "cd extract$round && borg extract --sparse ::first"
  same image.raw "extract$round/image.raw"
  borg_create borg-create-changed second changed.raw
done

load_after=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average after: $load_after"
echo "every result was identical to its image"

b=${took[brickdisk-import]}
e=${took[brickdisk-export]}
row() { printf '| %s | %s | %s | %s |\n' "$1" "${took[$2]}" "$(mbps "$image_bytes" "${took[$2]}")" "${3:-}"; }
cat <<EOF

Image: 2 GiB ext4 with $(mib "$(du -s -B1 image.raw | cut -f1)") MiB in use; changed image: ${changed_bricks} of 4096 bricks differ.
Shortest of ${rounds} rounds. Load average before / after: ${load_before} / ${load_after}.

| step | seconds | MB/s of image | stored MiB |
|---|---:|---:|---:|
$(row "brickdisk import (synced)" brickdisk-import "$(mib "$brickdisk_stored")")
$(row "brickdisk export" brickdisk-export)
$(row "brickdisk re-import, ${changed_bricks} bricks changed" brickdisk-reimport "$(mib "$snapshot_stored") (snapshot)")
$(row "brickdisk import (--no-sync)" brickdisk-import-nosync)
$(row "brickdisk import, md5 brick digest" brickdisk-import-md5)
$(row "brickdisk export, md5 brick digest" brickdisk-export-md5)
$(row "qemu-img convert to qcow2, zstd" qemu-zstd-write "$(mib "$(apparent zstd.qcow2)")")
$(row "qemu-img convert qcow2 zstd to raw" qemu-zstd-read)
$(row "qemu-img convert to qcow2, LUKS" qemu-luks-write "$(mib "$(apparent luks.qcow2)")")
$(row "qemu-img convert qcow2 LUKS to raw" qemu-luks-read)
$(row "borg create, lz4, repokey" borg-create "$(mib "$borg_stored")")
$(row "borg extract" borg-extract)
$(row "borg create of the changed image" borg-create-changed)

| goal | measured | met |
|---|---:|---|
| import at least 2x faster than borg create | $(ratio "${took[borg-create]}" "$b")x | $(at_least "$(ratio "${took[borg-create]}" "$b")" 2) |
| export at least 2x faster than qemu-img read-back (zstd) | $(ratio "${took[qemu-zstd-read]}" "$e")x | $(at_least "$(ratio "${took[qemu-zstd-read]}" "$e")" 2) |
| export at least 2x faster than qemu-img read-back (LUKS) | $(ratio "${took[qemu-luks-read]}" "$e")x | $(at_least "$(ratio "${took[qemu-luks-read]}" "$e")" 2) |
| stored size within 5 % of borg's | $(ratio "$brickdisk_stored" "$borg_stored") (brick files), $(ratio "$brickdisk_folder" "$borg_stored") (whole folder) | $(awk -v r="$(ratio "$brickdisk_stored" "$borg_stored")" 'BEGIN { print (r >= 0.95 && r <= 1.05 ? "yes" : "no") }') |

Re-import: $(sed 's/^imported //' brickdisk-reimport.out)
EOF
