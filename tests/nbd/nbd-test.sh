#!/usr/bin/env bash
# Serves brick disks with nbdkit and the brickdisk plugin and drives them with
# real NBD clients (nbdinfo, nbdcopy, qemu-img, qemu-io, fio, nbdfuse).
#
#   nbd-test.sh CASE BRICKDISK_PROGRAM PLUGIN WORK_FOLDER
#
# Every server listens on a Unix socket in the case's own folder and is
# stopped by its pid. A case that needs what the machine lacks prints
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

# shellcheck source=nbd-common.sh
source "$(dirname "${BASH_SOURCE[0]}")/nbd-common.sh"

need nbdkit nbdinfo nbdcopy

uri_of() { echo "nbd+unix:///?socket=$1"; }

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

# An image with data in some places and holes elsewhere.
make_sparse_image() {
  local image=$1 size_mib=$2
  truncate -s "${size_mib}M" "$image"
  head -c 3145728 /dev/urandom | dd of="$image" bs=1M seek=2 conv=notrunc status=none
  head -c 1048576 /dev/urandom | dd of="$image" bs=1M seek=$((size_mib - 1)) conv=notrunc status=none
  printf 'a few bytes' | dd of="$image" bs=1 seek=$((9 * 1048576 + 77)) conv=notrunc status=none
}

case_info_and_map() {
  make_disk "$work/disk" 16M
  make_sparse_image "$work/image" 16
  serve a "$work/disk"
  local uri
  uri=$(uri_of "$work/a.sock")
  [ "$(nbdinfo --size "$uri")" = 16777216 ] || fail "size is $(nbdinfo --size "$uri")"
  nbdcopy --flush "$work/image" "$uri"
  nbdinfo --map "$uri" >"$work/map.txt"
  # Bricks of 512 KiB: data at 2-5 MiB, 9-9.5 MiB, 15-16 MiB; holes around.
  grep -Eq '^ *0 +2097152 +3 +hole,zero$' "$work/map.txt" || fail "no leading hole: $(cat "$work/map.txt")"
  grep -Eq '^ *2097152 +3145728 +0 +data$' "$work/map.txt" || fail "no data at 2 MiB: $(cat "$work/map.txt")"
  grep -Eq '^ *9437184 +524288 +0 +data$' "$work/map.txt" || fail "no data brick at 9 MiB: $(cat "$work/map.txt")"
  grep -Eq '^ *9961472 +5767168 +3 +hole,zero$' "$work/map.txt" || fail "no hole after 9.5 MiB: $(cat "$work/map.txt")"

  # Trim and zero of whole bricks leave holes behind and read as zeros.
  command -v qemu-io >/dev/null || return 0
  qemu-io -f raw "$uri" -c "discard 2M 1M" -c "write -z 3M 512k" -c flush >"$work/trim.log" ||
    fail "trim and zero failed: $(cat "$work/trim.log")"
  qemu-io -f raw "$uri" -c "read -P 0 2M 1536k" >"$work/read-zeros.log" || fail "trimmed bytes do not read as zeros"
  nbdinfo --map "$uri" >"$work/map2.txt"
  grep -Eq '^ *0 +3670016 +3 +hole,zero$' "$work/map2.txt" || fail "no hole where trimmed: $(cat "$work/map2.txt")"
}

case_copy_in_and_out() {
  need qemu-img
  make_disk "$work/disk" 24M
  make_sparse_image "$work/image" 24
  serve a "$work/disk" cache=2M
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")"
  stop "$last_pid"
  serve b "$work/disk" readonly=true
  local uri
  uri=$(uri_of "$work/b.sock")
  nbdcopy "$uri" "$work/out"
  cmp "$work/image" "$work/out" || fail "image read back differs"
  qemu-img compare -f raw -F raw "$work/image" "$uri" || fail "qemu-img compare found a difference"
  # The copy out stays sparse: only the data bricks take room.
  local used
  used=$(du -k "$work/out" | cut -f1)
  [ "$used" -lt 8192 ] || fail "the copy out is not sparse ($used KiB used)"
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

# An encrypted disk, served with its password file.
case_kill_after_flush() {
  printf 'secret words\n' >"$work/password"
  "$brickdisk" create "$work/disk" --size 16M --password-file "$work/password" >/dev/null
  head -c 16777216 /dev/urandom >"$work/image"
  serve a "$work/disk" cache=64M password-file="$work/password"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")"
  kill -9 "$last_pid"
  wait "$last_pid" 2>/dev/null || true
  "$brickdisk" check --read-data "$work/disk" --password-file "$work/password" >"$work/check.log" 2>&1 ||
    fail "check failed"
  "$brickdisk" export "$work/disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "flushed bytes are missing after kill -9"
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

case_snapshot_unchanged_while_parent_written() {
  make_disk "$work/disk" 16M
  head -c 16777216 /dev/urandom >"$work/first"
  head -c 16777216 /dev/urandom >"$work/second"
  serve a "$work/disk"
  nbdcopy --flush "$work/first" "$(uri_of "$work/a.sock")"
  stop "$last_pid"
  "$brickdisk" snapshot "$work/disk" "$work/snap" >/dev/null
  serve parent "$work/disk" cache=1M
  serve snap "$work/snap" readonly=true cache=1M
  nbdcopy "$(uri_of "$work/snap.sock")" "$work/before"
  nbdcopy --flush "$work/second" "$(uri_of "$work/parent.sock")" &
  local writer=$!
  nbdcopy "$(uri_of "$work/snap.sock")" "$work/during"
  wait "$writer" || fail "writing the parent failed"
  nbdcopy "$(uri_of "$work/snap.sock")" "$work/after"
  nbdcopy "$(uri_of "$work/parent.sock")" "$work/parent-now"
  cmp "$work/first" "$work/before" || fail "the snapshot does not hold the first image"
  cmp "$work/first" "$work/during" || fail "the snapshot changed while the parent was written"
  cmp "$work/first" "$work/after" || fail "the snapshot changed after the parent was written"
  cmp "$work/second" "$work/parent-now" || fail "the parent does not hold the second image"
}

# A writer writes 4 KiB blocks one after the other, each filled with its
# number; qemu-io prints a line for each write once it is acknowledged. Ten
# snapshots are taken while it writes; every block acknowledged before a
# snapshot was asked for must be in that snapshot.
case_live_snapshots() {
  need qemu-io
  make_disk "$work/disk" 8M
  serve a "$work/disk"
  local blocks=2000 commands=() i
  for ((i = 0; i < blocks; i++)); do
    commands+=(-c "write -P $((i % 250 + 1)) $((i * 4096)) 4k")
  done
  stdbuf -oL qemu-io -f raw "$(uri_of "$work/a.sock")" "${commands[@]}" >"$work/acks.txt" 2>"$work/writer.log" &
  local writer=$! snapshot
  for snapshot in $(seq 1 10); do
    # Snapshots follow the writer's progress rather than the clock, so that
    # all ten are taken while it writes, however fast the machine is.
    for i in $(seq 1 3000); do
      [ "$(grep -c '^wrote' "$work/acks.txt" || true)" -ge $((snapshot * 120)) ] && break
      kill -0 "$writer" 2>/dev/null || break
      sleep 0.01
    done
    # Acknowledged before the request: lines written before it.
    grep -c '^wrote' "$work/acks.txt" >"$work/acked-$snapshot" || true
    "$brickdisk" snapshot "$work/disk" "$work/snap$snapshot" >"$work/snapshot-$snapshot.log" 2>&1 ||
      fail "snapshot $snapshot failed: $(cat "$work/snapshot-$snapshot.log")"
  done
  wait "$writer" || fail "the writer failed"
  stop "$last_pid"
  local acked
  for snapshot in $(seq 1 10); do
    acked=$(cat "$work/acked-$snapshot")
    "$brickdisk" export "$work/snap$snapshot" "$work/snap$snapshot.img" -q
    python3 - "$work/snap$snapshot.img" "$acked" <<'PYTHON' || fail "snapshot $snapshot lacks an acknowledged block"
import sys
data = open(sys.argv[1], "rb").read()
for block in range(int(sys.argv[2])):
    if data[block * 4096:(block + 1) * 4096] != bytes([block % 250 + 1]) * 4096:
        sys.exit("block %d is not there" % block)
PYTHON
    echo "snapshot $snapshot holds all $acked blocks acknowledged before it"
  done
  [ "$(cat "$work/acked-10")" -gt "$(cat "$work/acked-1")" ] || fail "the writer made no progress between snapshots"
  # The last block was written long after the last snapshot: not in it.
  [ "$(cat "$work/acked-10")" -lt $((blocks - 400)) ] || fail "the writer ended before the snapshots"
  python3 - "$work/snap10.img" "$blocks" <<'PYTHON' || fail "the last snapshot holds a block written after it"
import sys
data = open(sys.argv[1], "rb").read()
last = int(sys.argv[2]) - 1
sys.exit(0 if data[last * 4096:(last + 1) * 4096] == bytes(4096) else 1)
PYTHON
}

# brickdisk serve prints the URI, serves until SIGINT (Ctrl-C) and flushes
# before it ends; a snapshot is served read-only.
case_serve_command() {
  printf 'pass phrase\n' >"$work/password"
  "$brickdisk" create "$work/disk" --size 8M --password-file "$work/password" >/dev/null
  head -c 8388608 /dev/urandom >"$work/image"
  "$brickdisk" serve "$work/disk" --socket "$work/s.sock" --password-file "$work/password" >"$work/serve.log" 2>&1 &
  local serve=$! i
  cleanups+=("kill $serve 2>/dev/null")
  for i in $(seq 1 200); do
    grep -q '^Serving' "$work/serve.log" && break
    sleep 0.05
  done
  grep -q "nbd+unix:///?socket=$work/s.sock" "$work/serve.log" || fail "no URI printed: $(cat "$work/serve.log")"
  nbdcopy "$work/image" "nbd+unix:///?socket=$work/s.sock"
  kill -INT "$serve"
  wait "$serve" || fail "serve did not end cleanly: $(cat "$work/serve.log")"
  "$brickdisk" export "$work/disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "what was written before Ctrl-C is not stored"

  "$brickdisk" snapshot "$work/disk" "$work/snap" --password-file "$work/password" >/dev/null
  BRICKDISK_PASSWORD='pass phrase' "$brickdisk" serve "$work/snap" --socket "$work/t.sock" \
    >"$work/serve-snap.log" 2>&1 &
  serve=$!
  cleanups+=("kill $serve 2>/dev/null")
  for i in $(seq 1 200); do
    grep -q '^Serving' "$work/serve-snap.log" && break
    sleep 0.05
  done
  grep -q "(read-only)" "$work/serve-snap.log" || fail "the snapshot is not served read-only"
  if nbdcopy "$work/image" "nbd+unix:///?socket=$work/t.sock" 2>/dev/null; then
    fail "a snapshot served by default accepted a write"
  fi
  kill -INT "$serve"
  wait "$serve" || fail "serving the snapshot did not end cleanly"
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

# Writing a served disk with the bytes it already holds is no change: nothing
# is stored, and its snapshot receives no brick.
case_rewrite_unchanged_stores_nothing() {
  make_disk "$work/disk" 16M
  head -c 16777216 /dev/urandom >"$work/image"
  serve a "$work/disk" cache=2M
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")"
  stop "$last_pid"
  "$brickdisk" snapshot "$work/disk" "$work/snap" >/dev/null
  local before
  before=$(find "$work/disk/bricks" -type f -printf '%p %i\n' | sort)
  serve b "$work/disk" cache=2M
  nbdcopy --flush "$work/image" "$(uri_of "$work/b.sock")"
  stop "$last_pid"
  [ -z "$(find "$work/snap" -name '*.brick' -print -quit)" ] || fail "an unchanged rewrite copied bricks into the snapshot"
  [ "$(find "$work/disk/bricks" -type f -printf '%p %i\n' | sort)" = "$before" ] ||
    fail "an unchanged rewrite stored brick files again"
}

# wait_for_output LOG PATTERN PID: waits until LOG holds PATTERN or the
# program PID has ended; true when the pattern came.
wait_for_output() {
  local log=$1 pattern=$2 pid=$3 i
  for i in $(seq 1 600); do
    grep -q -- "$pattern" "$log" 2>/dev/null && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  grep -q -- "$pattern" "$log" 2>/dev/null
}

# Ctrl-C on brickdisk mount while its file is loop-mounted is refused (the
# disk stays served and the loop mount keeps working); once the loop mount is
# undone, Ctrl-C flushes and ends the mount.
case_mount_refuses_to_stop_while_loop_mounted() {
  need nbdfuse fusermount3 mkfs.ext4 e2fsck debugfs
  [ -c /dev/fuse ] || skip "no /dev/fuse"
  [ "$(id -u)" = 0 ] || skip "loop mounts need root"
  make_disk "$work/disk" 64M
  mkdir "$work/mnt" "$work/fs"
  "$brickdisk" mount "$work/disk" "$work/mnt" >"$work/mount.log" 2>&1 &
  local mount=$!
  cleanups+=("umount $work/fs 2>/dev/null; fusermount3 -u $work/mnt 2>/dev/null; kill $mount 2>/dev/null")
  wait_for_output "$work/mount.log" '^Mounted' "$mount" || {
    grep -qi "fuse" "$work/mount.log" && skip "FUSE mounts are not allowed here: $(cat "$work/mount.log")"
    fail "the disk was not mounted: $(cat "$work/mount.log")"
  }
  mkfs.ext4 -q -F "$work/mnt/disk" || fail "mkfs.ext4 failed"
  mount -o loop "$work/mnt/disk" "$work/fs" 2>"$work/loop.log" ||
    skip "this machine cannot make loop devices: $(cat "$work/loop.log")"
  echo "before Ctrl-C" >"$work/fs/first"
  kill -INT "$mount"
  wait_for_output "$work/mount.log" "still loop-mounted" "$mount" ||
    fail "Ctrl-C did not refuse to stop: $(cat "$work/mount.log")"
  kill -0 "$mount" 2>/dev/null || fail "brickdisk mount ended while its file was loop-mounted"
  grep -q "umount $work/fs" "$work/mount.log" || fail "the refusal does not say how to unmount"
  grep -q "^Unmounted" "$work/mount.log" && fail "Unmounted was printed: $(cat "$work/mount.log")"
  echo "after Ctrl-C" >"$work/fs/second"
  sync -f "$work/fs/second" || fail "the loop-mounted file system failed after Ctrl-C"
  "$brickdisk" unmount "$work/mnt" >"$work/unmount.log" 2>&1 && fail "unmount succeeded while loop-mounted"
  grep -q "still loop-mounted" "$work/unmount.log" || fail "unmount does not say why: $(cat "$work/unmount.log")"
  umount "$work/fs" || fail "the loop mount could not be undone"
  kill -INT "$mount"
  wait "$mount" || fail "mount did not end cleanly: $(cat "$work/mount.log")"
  grep -q "^Unmounted" "$work/mount.log" || fail "Unmounted was not printed"
  "$brickdisk" export "$work/disk" "$work/out" -q
  e2fsck -fn "$work/out" >"$work/fsck.log" 2>&1 || fail "the stored file system has errors: $(cat "$work/fsck.log")"
  [ "$(debugfs -R "cat /second" "$work/out" 2>/dev/null)" = "after Ctrl-C" ] ||
    fail "a file written after the refused Ctrl-C is not stored"
  "$brickdisk" unmount "$work/mnt" >"$work/unmount2.log" 2>&1 && fail "unmount of a folder not mounted succeeded"
  grep -q "is not mounted" "$work/unmount2.log" || fail "unmount does not say the folder is not mounted"
}

# brickdisk mount checks its folder before it serves, cleans up after every
# failure and tells how to loop-mount a read-only disk.
case_mount_edges() {
  need nbdfuse fusermount3
  [ -c /dev/fuse ] || skip "no /dev/fuse"
  make_disk "$work/disk" 8M
  mkdir "$work/tmp"
  export TMPDIR=$work/tmp
  if "$brickdisk" mount "$work/disk" "$work/missing/folder" >"$work/missing.log" 2>&1; then
    fail "mounting on a missing folder succeeded"
  fi
  grep -q "does not exist" "$work/missing.log" || fail "no reason given: $(cat "$work/missing.log")"
  grep -q "Mounted" "$work/missing.log" && fail "Mounted printed for a missing folder"
  mkdir "$work/full"
  echo "mine" >"$work/full/file"
  if "$brickdisk" mount "$work/disk" "$work/full" >"$work/full.log" 2>&1; then
    fail "mounting on a folder that is not empty succeeded"
  fi
  grep -q "not empty" "$work/full.log" || fail "no reason given: $(cat "$work/full.log")"
  [ "$(cat "$work/full/file")" = mine ] || fail "the folder's file is hidden"
  mkdir "$work/mnt"
  if "$brickdisk" mount "$work/disk" "$work/mnt" --cache lots >"$work/cache.log" 2>&1; then
    fail "mounting with an unreadable cache size succeeded"
  fi
  [ -z "$(ls -A "$work/tmp")" ] || fail "a failed mount left behind: $(ls -A "$work/tmp")"

  "$brickdisk" mount "$work/disk" "$work/mnt" --read-only >"$work/mount.log" 2>&1 &
  local mount=$!
  cleanups+=("fusermount3 -u $work/mnt 2>/dev/null; kill $mount 2>/dev/null")
  wait_for_output "$work/mount.log" '^Mounted' "$mount" || {
    grep -qi "fuse" "$work/mount.log" && skip "FUSE mounts are not allowed here: $(cat "$work/mount.log")"
    fail "the disk was not mounted: $(cat "$work/mount.log")"
  }
  [ -f "$work/mnt/disk" ] || fail "Mounted was printed before the disk file was there"
  grep -q -- "-o loop,ro " "$work/mount.log" || fail "no read-only loop mount suggested: $(cat "$work/mount.log")"
  "$brickdisk" unmount "$work/mnt" || fail "unmount failed"
  wait "$mount" || fail "mount did not end cleanly: $(cat "$work/mount.log")"
  [ -z "$(ls -A "$work/tmp")" ] || fail "a mount left behind: $(ls -A "$work/tmp")"
}

# serve_in_background NAME ARGS...: runs brickdisk serve ARGS... with its
# output in $work/NAME.log, waits until it serves and sets $serve_pid.
serve_in_background() {
  local name=$1
  shift
  "$brickdisk" serve "$@" >"$work/$name.log" 2>&1 &
  serve_pid=$!
  cleanups+=("kill $serve_pid 2>/dev/null")
  wait_for_output "$work/$name.log" '^Serving' "$serve_pid" || fail "serve $name did not start: $(cat "$work/$name.log")"
}

# A second serve of a served disk is refused without touching the first
# server's socket; another kind of file is never taken for a socket; a stale
# socket of a killed server is replaced.
case_serve_socket_safety() {
  make_disk "$work/disk" 8M
  make_disk "$work/other" 8M
  serve_in_background a "$work/disk" --socket "$work/a.sock"
  if "$brickdisk" serve "$work/disk" --socket "$work/a.sock" >"$work/second.log" 2>&1; then
    fail "a second serve of a served disk started"
  fi
  grep -q "in use by another process" "$work/second.log" || fail "no reason given: $(cat "$work/second.log")"
  grep -q "holder: process [0-9]* (nbdkit)" "$work/second.log" || fail "the holder is not named: $(cat "$work/second.log")"
  nbdinfo --size "$(uri_of "$work/a.sock")" >/dev/null || fail "the first server lost its socket"
  if "$brickdisk" serve "$work/other" --socket "$work/a.sock" >"$work/taken.log" 2>&1; then
    fail "a serve on a socket that a server listens on started"
  fi
  grep -q "Another server listens" "$work/taken.log" || fail "no reason given: $(cat "$work/taken.log")"
  nbdinfo --size "$(uri_of "$work/a.sock")" >/dev/null || fail "the first server lost its socket"

  echo "precious" >"$work/precious.txt"
  if "$brickdisk" serve "$work/other" --socket "$work/precious.txt" >"$work/file.log" 2>&1; then
    fail "a serve replaced a regular file by its socket"
  fi
  [ "$(cat "$work/precious.txt")" = precious ] || fail "the regular file was changed"

  # A failed serve leaves no socket.
  if "$brickdisk" serve "$work/other" --socket "$work/failed.sock" --plugin "$work/no-such-plugin.so" \
    >"$work/failed.log" 2>&1; then
    fail "a serve with a missing plugin started"
  fi
  [ -e "$work/failed.sock" ] && fail "a failed serve left its socket"

  # A killed serve's socket is replaced by the next serve.
  python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$work/stale.sock"
  serve_in_background b "$work/other" --socket "$work/stale.sock"
  nbdinfo --size "$(uri_of "$work/stale.sock")" >/dev/null || fail "the new server does not answer"
  kill -INT "$serve_pid"
  wait "$serve_pid" || fail "serve did not end cleanly: $(cat "$work/b.log")"
  [ -e "$work/stale.sock" ] && fail "serve left its socket"
  return 0
}

# The password of an encrypted disk reaches the server through a pipe: a
# password file of several lines works as for every other command, and no
# file holds the password, even when serve is killed while the server starts.
case_serve_password() {
  local password="line one $RANDOM$RANDOM"
  printf '%s\nline two\n' "$password" >"$work/password"
  "$brickdisk" create "$work/disk" --size 8M --password-file "$work/password" --kdf pbkdf2 >/dev/null
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background a "$work/disk" --socket "$work/a.sock" --password-file "$work/password"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  kill -INT "$serve_pid"
  wait "$serve_pid" || fail "serve did not end cleanly: $(cat "$work/a.log")"
  "$brickdisk" export "$work/disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "what was written is not stored"

  # Killed as soon as the server runs, long before it answers.
  local tmp=${TMPDIR:-/tmp} i server
  "$brickdisk" serve "$work/disk" --socket "$work/b.sock" --password-file "$work/password" >"$work/b.log" 2>&1 &
  serve_pid=$!
  for i in $(seq 1 400); do
    server=$(pgrep -P "$serve_pid" nbdkit || true)
    [ -n "$server" ] && break
    sleep 0.01
  done
  [ -n "$server" ] || fail "no server started: $(cat "$work/b.log")"
  tr '\0' '\n' <"/proc/$server/cmdline" >"$work/server-arguments" || true
  kill -9 "$serve_pid"
  wait "$serve_pid" 2>/dev/null || true
  grep -q "password-file" "$work/server-arguments" && fail "the server was given a password file"
  grep -rlsF -- "$password" "$tmp"/brickdisk-password-* "$work/server-arguments" &&
    fail "a file holds the password after serve was killed"
  return 0
}

# A server that dies while it serves ends brickdisk serve with the cause and a
# non-zero status; what was flushed is stored.
case_serve_server_dies() {
  make_disk "$work/disk" 8M
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background a "$work/disk" --socket "$work/a.sock"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  local server
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  kill -ABRT "$server"
  local status=0
  wait "$serve_pid" || status=$?
  [ "$status" != 0 ] || fail "serve ended with status 0 after its server died"
  grep -q "died by signal 6" "$work/a.log" ||
    fail "the cause is not named: $(cat "$work/a.log")"
  grep -q "^Stopped serving" "$work/a.log" && fail "serve says it stopped as asked"
  "$brickdisk" export "$work/disk" "$work/out" -q
  cmp "$work/image" "$work/out" || fail "flushed writes were lost"
}

# squat KIND NAME LOG: a process of another user (nobody) that listens on the
# abstract socket NAME (KIND abstract) or the socket file NAME (KIND file)
# and answers "ok" to every request; sets $squatter_pid once it listens.
squat() {
  python3 - "$1" "$2" >"$3" 2>&1 <<'PYTHON' &
import os, socket, sys
kind, name = sys.argv[1:3]
listener = socket.socket(socket.AF_UNIX)
listener.bind(b"\0" + name.encode() if kind == "abstract" else name)
# The socket's owner is the user who listens.
os.setgid(65534)
os.setuid(65534)
listener.listen(4)
print("listening", flush=True)
while True:
    connection, _ = listener.accept()
    connection.recv(4096)
    connection.sendall(b"ok\n")
    connection.close()
PYTHON
  squatter_pid=$!
  cleanups+=("kill $squatter_pid 2>/dev/null")
  wait_for_output "$3" listening "$squatter_pid" || fail "the squatter did not start: $(cat "$3")"
}

# folder_hash FOLDER: the hexadecimal FNV-1a hash that names a disk's control
# socket.
folder_hash() {
  python3 -c '
import sys
h = 14695981039346656037
for c in sys.argv[1].encode():
    h = ((h ^ c) * 1099511628211) % 2**64
print("%016x" % h)' "$1"
}

# is_snapshot_of SNAPSHOT DISK: true when SNAPSHOT holds a disk whose parent
# is DISK.
is_snapshot_of() {
  "$brickdisk" info "$1" >"$work/info.txt" 2>&1 && grep -q "^parents: *$2" "$work/info.txt"
}

# Another user cannot answer for a served disk: snapshot never reports a
# snapshot that is not there, and a server starts whatever another user
# listens on.
case_snapshot_control_squatter() {
  [ "$(id -u)" = 0 ] || skip "a squatter of another user needs root to become that user"
  make_disk "$work/disk" 8M
  local runtime hash
  runtime=$(mktemp -d /tmp/brickdisk-test-XXXXXX)
  cleanups+=("rm -rf $runtime")
  export XDG_RUNTIME_DIR=$runtime
  hash=$(folder_hash "$work/disk")
  squat abstract "brickdisk-serve-$hash" "$work/squatter.log"

  "$brickdisk" snapshot "$work/disk" "$work/snap1" >"$work/snap1.log" 2>&1 ||
    fail "snapshot of a disk nobody serves failed: $(cat "$work/snap1.log")"
  is_snapshot_of "$work/snap1" "$work/disk" || fail "snapshot reported success without a snapshot: $(cat "$work/snap1.log")"

  serve a "$work/disk"
  "$brickdisk" snapshot "$work/disk" "$work/snap2" >"$work/snap2.log" 2>&1 ||
    fail "snapshot of the served disk failed: $(cat "$work/snap2.log")"
  grep -q "taken by the server" "$work/snap2.log" || fail "the server did not take the snapshot: $(cat "$work/snap2.log")"
  is_snapshot_of "$work/snap2" "$work/disk" || fail "the server's snapshot is not there"
  stop "$last_pid"
  [ -e "$runtime/serve-$hash.sock" ] && fail "the server left its control socket"

  # A socket of another user where the control socket belongs is not asked.
  squat file "$runtime/serve-$hash.sock" "$work/squatter2.log"
  if "$brickdisk" snapshot "$work/disk" "$work/snap3" >"$work/snap3.log" 2>&1; then
    fail "snapshot trusted a process of another user: $(cat "$work/snap3.log")"
  fi
  grep -q "another user" "$work/snap3.log" || fail "the refusal does not say why: $(cat "$work/snap3.log")"
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

# serve --stats FILE: the server's counters in the Prometheus text format,
# written when it starts, while it serves and at its end: the bricks that a
# write through NBD stored show as puts to the store (a folder disk has no
# local cache, so no cache counters), and no temporary file stays beside it.
case_serve_stats() {
  make_disk "$work/disk" 4M --brick-size 64K
  head -c 1048576 /dev/urandom >"$work/image"
  "$brickdisk" serve "$work/disk" --socket "$work/s.sock" --stats "$work/stats.prom" >"$work/serve.log" 2>&1 &
  local serve=$! i
  cleanups+=("kill $serve 2>/dev/null")
  for i in $(seq 1 200); do
    grep -q '^Serving' "$work/serve.log" && break
    sleep 0.05
  done
  grep -q '^Serving' "$work/serve.log" || fail "serve did not start: $(cat "$work/serve.log")"
  grep -q '^# TYPE brickdisk_store_requests_total counter$' "$work/stats.prom" ||
    fail "no statistics when serving began: $(cat "$work/stats.prom" 2>&1)"
  nbdcopy --flush "$work/image" "nbd+unix:///?socket=$work/s.sock"
  kill -INT "$serve"
  wait "$serve" || fail "serve did not end cleanly: $(cat "$work/serve.log")"
  local puts bytes
  puts=$(sed -n 's/^brickdisk_store_requests_total{disk="[^"]*",kind="put"} //p' "$work/stats.prom")
  bytes=$(sed -n 's/^brickdisk_store_bytes_total{disk="[^"]*",kind="put"} //p' "$work/stats.prom")
  [ "${puts:-0}" -ge 16 ] || fail "the 16 bricks written are not counted as puts: $(cat "$work/stats.prom")"
  [ "${bytes:-0}" -gt 0 ] || fail "no bytes put: $(cat "$work/stats.prom")"
  grep -q "disk=\"$work/disk\"" "$work/stats.prom" || fail "the disk is not named: $(cat "$work/stats.prom")"
  grep -q '^brickdisk_cache_' "$work/stats.prom" && fail "cache counters for a disk without a cache"
  [ "$(ls -A "$work" | grep -c 'stats')" -eq 1 ] || fail "files beside the statistics: $(ls -A "$work")"
}

"case_$case_name"
echo "PASSED: $case_name"
