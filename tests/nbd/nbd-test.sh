#!/usr/bin/env bash
# Serves brick disks with nbdkit and the brickdisk plugin and drives them with
# real NBD clients (nbdinfo, nbdcopy, qemu-img, qemu-io, fio, nbdfuse).
#
#   nbd-test.sh CASE BRICKDISK_PROGRAM PLUGIN WORK_FOLDER
#
# The cases that hold for disks in a store too are in nbd-shared-cases.sh,
# which nbd-store-test.sh runs as well. Every server listens on a Unix socket
# in the case's own folder and is stopped by its pid. A case that needs what the machine lacks prints
# "SKIPPED: reason" and exits 77 (CTest's skip code).
set -euo pipefail

case_name=$1
brickdisk=$2
plugin=$3
work=$4/$case_name

rm -rf "$work"
mkdir -p "$work"
declare -a server_pids=()
declare -a cleanups=()

cleanup() {
  local command pid
  for command in "${cleanups[@]}"; do eval "$command" || true; done
  for pid in "${server_pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
}
trap cleanup EXIT

# A disk in a local folder needs no settings to reach its store; the case's
# folder holds its servers' sockets.
settings=()
sockets=$work
# shellcheck source=nbd-common.sh
source "$(dirname "${BASH_SOURCE[0]}")/nbd-common.sh"
# shellcheck source=nbd-shared-cases.sh
source "$(dirname "${BASH_SOURCE[0]}")/nbd-shared-cases.sh"

need nbdkit nbdinfo nbdcopy

# disk_at NAME: the case's disk NAME, a folder in the case's folder.
disk_at() { echo "$work/$1"; }

# make_disk FOLDER SIZE [create options...]: an unencrypted disk.
make_disk() {
  local folder=$1 size=$2
  shift 2
  "$brickdisk" create "$folder" --size "$size" --no-encryption "$@" >/dev/null
}

# serve NAME DISK [plugin parameters...]: starts a server on $work/NAME.sock,
# waits until it accepts connections and sets $last_pid.
serve() {
  local name=$1 disk=$2
  shift 2
  local socket=$work/$name.sock
  rm -f "$socket"
  nbdkit -f -U "$socket" "$plugin" disk="$disk" "$@" >"$work/$name.log" 2>&1 &
  last_pid=$!
  server_pids+=("$last_pid")
  local i
  for i in $(seq 1 200); do
    if nbdinfo --size "$(uri_of "$socket")" >/dev/null 2>&1; then
      return 0
    fi
    kill -0 "$last_pid" 2>/dev/null || fail "server $name ended at start: $(cat "$work/$name.log")"
    sleep 0.05
  done
  fail "server $name did not start"
}

stop() {
  local pid=$1
  kill "$pid"
  wait "$pid" || true
}

kill_server() {
  kill -9 "$1"
  wait "$1" 2>/dev/null || true
}

case_fio_verify_after_restart() {
  need fio
  fio --enghelp 2>/dev/null | grep -qx '[[:space:]]*nbd' || skip "fio has no nbd engine"
  make_disk "$work/disk" 32M
  serve a "$work/disk" cache=4M
  local common=(--name=verify --ioengine=nbd --uri="$(uri_of "$work/a.sock")" --rw=randwrite --bs=4k
    --size=32M --iodepth=16 --verify=crc32c --randseed=42 --output="$work/fio.txt")
  fio "${common[@]}" --number_ios=3000 --do_verify=0 --end_fsync=1 || fail "fio writing failed"
  stop "$last_pid"
  serve a "$work/disk"
  common[2]=--uri="$(uri_of "$work/a.sock")"
  fio "${common[@]}" --number_ios=3000 --verify_only=1 || fail "fio verify failed: $(cat "$work/fio.txt")"
}

case_second_server_refused() {
  make_disk "$work/disk" 8M
  serve a "$work/disk"
  if nbdkit -f -U "$work/b.sock" "$plugin" disk="$work/disk" >"$work/b.log" 2>&1; then
    fail "a second server on the same disk started"
  fi
  grep -q "in use" "$work/b.log" || fail "the refusal does not say the disk is in use: $(cat "$work/b.log")"
  # Readers are refused too while a writer serves the disk.
  if nbdkit -f -U "$work/c.sock" "$plugin" disk="$work/disk" readonly=true >"$work/c.log" 2>&1; then
    fail "a read-only server started while a writer serves the disk"
  fi
}

# brickdisk mount: mkfs.ext4 and e2fsck through nbdfuse's file, a loop mount
# with files copied in and out where the machine allows it, then unmount.
case_mount_ext4() {
  need nbdfuse fusermount3 mkfs.ext4 e2fsck
  [ -c /dev/fuse ] || skip "no /dev/fuse"
  make_disk "$work/disk" 64M
  mkdir "$work/mnt"
  "$brickdisk" mount "$work/disk" "$work/mnt" >"$work/mount.log" 2>&1 &
  local mount=$! i
  cleanups+=("fusermount3 -u $work/mnt 2>/dev/null; kill $mount 2>/dev/null")
  for i in $(seq 1 200); do
    [ -f "$work/mnt/disk" ] && break
    kill -0 "$mount" 2>/dev/null || break
    sleep 0.05
  done
  if [ ! -f "$work/mnt/disk" ]; then
    grep -qi "fuse" "$work/mount.log" && skip "FUSE mounts are not allowed here: $(cat "$work/mount.log")"
    fail "the disk file did not appear"
  fi
  [ "$(stat -c %s "$work/mnt/disk")" = 67108864 ] || fail "the disk file has the wrong size"
  mkfs.ext4 -q -F "$work/mnt/disk" || fail "mkfs.ext4 failed"
  e2fsck -fn "$work/mnt/disk" >"$work/fsck.log" 2>&1 || fail "e2fsck found errors"
  head -c 3000000 /dev/urandom >"$work/file1"
  local mounted=no
  mkdir "$work/fs"
  if [ "$(id -u)" = 0 ] && mount -o loop "$work/mnt/disk" "$work/fs" 2>"$work/loop.log"; then
    mounted=yes
    cleanups+=("umount $work/fs 2>/dev/null")
    cp "$work/file1" "$work/fs/file1"
    mkdir "$work/fs/sub" && cp "$work/file1" "$work/fs/sub/copy"
    umount "$work/fs"
    mount -o loop,ro "$work/mnt/disk" "$work/fs" || fail "remounting failed"
    cmp "$work/file1" "$work/fs/sub/copy" || fail "a file copied in reads back differently"
    cp "$work/fs/file1" "$work/file1.out"
    umount "$work/fs"
    cmp "$work/file1" "$work/file1.out" || fail "a file copied out differs"
  fi
  "$brickdisk" unmount "$work/mnt" || fail "unmount failed"
  wait "$mount" || fail "mount did not end cleanly: $(cat "$work/mount.log")"
  "$brickdisk" export "$work/disk" "$work/out" -q
  e2fsck -fn "$work/out" >"$work/fsck2.log" 2>&1 || fail "the stored file system has errors"
  if [ "$mounted" = no ]; then
    echo "loop mount not allowed here; checked mkfs.ext4 and e2fsck only"
  fi
}

# small_file_system SIZE: mounts a tmpfs of SIZE at $work/small, which fills
# up as a small disk does; skips where the machine cannot mount one.
small_file_system() {
  mkdir -p "$work/small"
  [ "$(id -u)" = 0 ] || skip "mounting a small file system needs root"
  mount -t tmpfs -o size="$1" tmpfs "$work/small" 2>"$work/tmpfs.log" ||
    skip "a tmpfs cannot be mounted here: $(cat "$work/tmpfs.log")"
  cleanups+=("umount $work/small")
}

# disk_on_a_full_file_system SIZE_MIB FILLER_MIB: a 16 MiB disk in
# $work/small/disk on a tmpfs of SIZE_MIB that a filler file of FILLER_MIB
# ($work/small/filler) keeps too full for $work/image, 16 MiB of random bytes.
disk_on_a_full_file_system() {
  small_file_system "$1M"
  make_disk "$work/small/disk" 16M
  head -c 16777216 /dev/urandom >"$work/image"
  head -c $(($2 * 1048576)) /dev/zero >"$work/small/filler"
}

# A served disk on a file system that fills up keeps every acknowledged write:
# the flush fails, reads return the written bytes, and once room is made the
# next flush (here the server's stop) stores them all.
case_full_file_system_keeps_writes() {
  # About 6 MiB free: not enough for the image's bricks.
  disk_on_a_full_file_system 40 33
  serve a "$work/small/disk" cache=2M
  local uri
  uri=$(uri_of "$work/a.sock")
  if nbdcopy --flush "$work/image" "$uri" 2>"$work/copy.log"; then
    fail "the copy onto a full file system reported success"
  fi
  rm "$work/small/filler"
  nbdcopy "$uri" "$work/read-back"
  cmp "$work/image" "$work/read-back" || fail "the server lost writes whose store failed"
  kill "$last_pid"
  wait "$last_pid" || fail "the server did not stop cleanly once there was room: $(cat "$work/a.log")"
  "$brickdisk" export "$work/small/disk" "$work/out" -q
  cmp "$work/image" "$work/out" || fail "the disk lacks writes after the server stopped"
}

# A server that stops while bricks still cannot be stored says how many and
# which, and exits with a failure.
case_stop_with_unstored_bricks_fails() {
  disk_on_a_full_file_system 24 20
  serve a "$work/small/disk" cache=64M
  nbdcopy "$work/image" "$(uri_of "$work/a.sock")" || fail "writes into the cache failed"
  kill "$last_pid"
  if wait "$last_pid"; then
    fail "the server exited 0 with bricks it could not store"
  fi
  grep -q "changed bricks not stored (bricks " "$work/a.log" ||
    fail "the server did not name the bricks it could not store: $(cat "$work/a.log")"

  # brickdisk serve, stopped with Ctrl-C, ends with a failure too.
  "$brickdisk" serve "$work/small/disk" --socket "$work/s.sock" --cache 64M >"$work/serve.log" 2>&1 &
  local serve=$!
  cleanups+=("kill $serve 2>/dev/null")
  wait_for_output "$work/serve.log" '^Serving' "$serve" || fail "serve did not start: $(cat "$work/serve.log")"
  nbdcopy "$work/image" "$(uri_of "$work/s.sock")" || fail "writes into the cache failed"
  kill -INT "$serve"
  if wait "$serve"; then
    fail "serve exited 0 with bricks it could not store: $(cat "$work/serve.log")"
  fi
  grep -q "changed bricks not stored" "$work/serve.log" || fail "serve did not say what was lost: $(cat "$work/serve.log")"
  grep -q "failed as it stopped" "$work/serve.log" || fail "serve did not end with an error: $(cat "$work/serve.log")"
}

# refused_by_plugin NAME [plugin parameters...]: the plugin must refuse to
# serve; the server is stopped when it serves all the same.
refused_by_plugin() {
  local name=$1 i
  shift
  nbdkit -f -U "$work/$name.sock" "$plugin" "$@" >"$work/$name.log" 2>&1 &
  last_pid=$!
  server_pids+=("$last_pid")
  for i in $(seq 1 200); do
    kill -0 "$last_pid" 2>/dev/null || break
    nbdinfo --size "$(uri_of "$work/$name.sock")" >/dev/null 2>&1 && fail "server $name served: $*"
    sleep 0.05
  done
  kill -0 "$last_pid" 2>/dev/null && fail "server $name neither served nor ended"
  ! wait "$last_pid" || fail "server $name ended without an error"
}

# The plugin checks a disk's chain before it serves it, as the commands do: a
# snapshot whose parent was replaced by a disk of another size is refused
# instead of showing that disk's bricks. A disk name of an unknown scheme is refused as
# the commands refuse it.
case_plugin_checks_the_disk() {
  make_disk "$work/base" 8M
  head -c 8388608 /dev/urandom >"$work/image"
  "$brickdisk" import "$work/base" "$work/image" -q
  "$brickdisk" snapshot "$work/base" "$work/snap" >/dev/null
  mv "$work/base" "$work/moved"
  make_disk "$work/base" 16M
  refused_by_plugin a disk="$work/snap" readonly=true
  grep -q "A parent disk of the disk is missing or does not match it." "$work/a.log" ||
    fail "the refusal does not name the chain: $(cat "$work/a.log")"
  grep -q "disk size 16777216 instead of 8388608" "$work/a.log" || fail "the refusal does not say what differs"
  refused_by_plugin b disk="s3:/bucket/disk"
  grep -q 'Unknown storage scheme "s3:"' "$work/b.log" || fail "the refusal does not name the scheme: $(cat "$work/b.log")"
}

"case_$case_name"
echo "PASSED: $case_name"
