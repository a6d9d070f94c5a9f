# The NBD cases that hold for a disk wherever it lives: in a local folder
# (nbd-test.sh) or in an S3 bucket or a Ceph pool (nbd-store-test.sh).
# Sourced after nbd-common.sh; each script says where its disks live and how
# it serves them:
#
#   $sockets                        the folder of the servers' sockets (a
#                                   short path: a socket's path has at most
#                                   107 bytes)
#   disk_at NAME                    the address of the case's disk NAME
#   make_disk DISK SIZE [OPTIONS]   creates an unencrypted disk
#   serve NAME DISK [PARAMETERS]    serves DISK on $sockets/NAME.sock until
#                                   stopped and sets $last_pid; PARAMETERS
#                                   are the plugin's: readonly=true,
#                                   cache=SIZE, password-file=FILE, stats=FILE
#   stop PID                        stops that server, which flushes
#   kill_server PID                 kills that server's nbdkit with -9

# An image with data in some places and holes elsewhere.
make_sparse_image() {
  local image=$1 size_mib=$2
  truncate -s "${size_mib}M" "$image"
  head -c 3145728 /dev/urandom | dd of="$image" bs=1M seek=2 conv=notrunc status=none
  head -c 1048576 /dev/urandom | dd of="$image" bs=1M seek=$((size_mib - 1)) conv=notrunc status=none
  printf 'a few bytes' | dd of="$image" bs=1 seek=$((9 * 1048576 + 77)) conv=notrunc status=none
}

case_info_and_map() {
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 16M --brick-size 512K
  make_sparse_image "$work/image" 16
  serve a "$disk"
  local uri
  uri=$(uri_of "$sockets/a.sock")
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
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 24M
  make_sparse_image "$work/image" 24
  serve a "$disk" cache=2M
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/a.sock")"
  stop "$last_pid"
  serve b "$disk" readonly=true
  local uri
  uri=$(uri_of "$sockets/b.sock")
  nbdcopy "$uri" "$work/out"
  cmp "$work/image" "$work/out" || fail "image read back differs"
  qemu-img compare -f raw -F raw "$work/image" "$uri" || fail "qemu-img compare found a difference"
  # The copy out stays sparse: only the data bricks take room.
  local used
  used=$(du -k "$work/out" | cut -f1)
  [ "$used" -lt 8192 ] || fail "the copy out is not sparse ($used KiB used)"
}

# An encrypted disk, served with its password file and killed after a flush:
# the disk holds every flushed byte.
case_kill_after_flush() {
  local disk
  disk=$(disk_at disk)
  printf 'secret words\n' >"$work/password"
  run_brickdisk create "$disk" --size 16M --password-file "$work/password" >/dev/null
  head -c 16777216 /dev/urandom >"$work/image"
  serve a "$disk" cache=64M password-file="$work/password"
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/a.sock")"
  kill_server "$last_pid"
  when_free "$work/check.log" run_brickdisk check --read-data "$disk" --password-file "$work/password" ||
    fail "check failed"
  run_brickdisk export "$disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "flushed bytes are missing after kill -9"
}

case_snapshot_unchanged_while_parent_written() {
  local disk snap
  disk=$(disk_at disk)
  snap=$(disk_at snap)
  make_disk "$disk" 16M
  head -c 16777216 /dev/urandom >"$work/first"
  head -c 16777216 /dev/urandom >"$work/second"
  serve a "$disk"
  nbdcopy --flush "$work/first" "$(uri_of "$sockets/a.sock")"
  stop "$last_pid"
  run_brickdisk snapshot "$disk" "$snap" >/dev/null
  serve parent "$disk" cache=1M
  serve snap "$snap" readonly=true cache=1M
  nbdcopy "$(uri_of "$sockets/snap.sock")" "$work/before"
  nbdcopy --flush "$work/second" "$(uri_of "$sockets/parent.sock")" &
  local writer=$!
  nbdcopy "$(uri_of "$sockets/snap.sock")" "$work/during"
  wait "$writer" || fail "writing the parent failed"
  nbdcopy "$(uri_of "$sockets/snap.sock")" "$work/after"
  nbdcopy "$(uri_of "$sockets/parent.sock")" "$work/parent-now"
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
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 8M
  serve a "$disk"
  local blocks=2000 commands=() i
  for ((i = 0; i < blocks; i++)); do
    commands+=(-c "write -P $((i % 250 + 1)) $((i * 4096)) 4k")
  done
  stdbuf -oL qemu-io -f raw "$(uri_of "$sockets/a.sock")" "${commands[@]}" >"$work/acks.txt" 2>"$work/writer.log" &
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
    run_brickdisk snapshot "$disk" "$(disk_at "snap$snapshot")" >"$work/snapshot-$snapshot.log" 2>&1 ||
      fail "snapshot $snapshot failed: $(cat "$work/snapshot-$snapshot.log")"
  done
  wait "$writer" || fail "the writer failed"
  stop "$last_pid"
  local acked
  for snapshot in $(seq 1 10); do
    acked=$(cat "$work/acked-$snapshot")
    run_brickdisk export "$(disk_at "snap$snapshot")" "$work/snap$snapshot.img" -q
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

# Writing a served disk with the bytes it already holds is no change: the
# server stores no brick (its statistics count no brick's bytes put into the
# store), and the disk's snapshot receives no brick.
case_rewrite_unchanged_stores_nothing() {
  local disk snap
  disk=$(disk_at disk)
  snap=$(disk_at snap)
  make_disk "$disk" 16M --brick-size 64K
  head -c 16777216 /dev/urandom >"$work/image"
  serve a "$disk" cache=2M
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/a.sock")"
  stop "$last_pid"
  run_brickdisk snapshot "$disk" "$snap" >/dev/null
  serve b "$disk" cache=2M stats="$work/rewrite.prom"
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/b.sock")"
  stop "$last_pid"
  local bytes
  bytes=$(sed -n 's/^brickdisk_store_bytes_total{disk="[^"]*",kind="put"} //p' "$work/rewrite.prom")
  [ -n "$bytes" ] || fail "no bytes put are counted: $(cat "$work/rewrite.prom")"
  # The disk's records (its lock) are small; a single brick is 64 KiB.
  [ "$bytes" -lt 65536 ] || fail "an unchanged rewrite put $bytes bytes into the store"
  [ "$(brick_files "$snap")" = 0 ] || fail "an unchanged rewrite copied bricks into the snapshot"
}

# brickdisk serve prints the URI, serves until SIGINT (Ctrl-C) and flushes
# before it ends; a snapshot is served read-only, with the password from the
# environment.
case_serve_command() {
  local disk snap
  disk=$(disk_at disk)
  snap=$(disk_at snap)
  printf 'pass phrase\n' >"$work/password"
  run_brickdisk create "$disk" --size 8M --password-file "$work/password" >/dev/null
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background serve "$disk" --socket "$sockets/s.sock" --password-file "$work/password"
  grep -q "$(uri_of "$sockets/s.sock")" "$work/serve.log" || fail "no URI printed: $(cat "$work/serve.log")"
  nbdcopy "$work/image" "$(uri_of "$sockets/s.sock")"
  stop_serving "$serve_pid" "$work/serve.log"
  run_brickdisk export "$disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "what was written before Ctrl-C is not stored"

  run_brickdisk snapshot "$disk" "$snap" --password-file "$work/password" >/dev/null
  export BRICKDISK_PASSWORD='pass phrase'
  serve_in_background serve-snap "$snap" --socket "$sockets/t.sock"
  unset BRICKDISK_PASSWORD
  grep -q "(read-only)" "$work/serve-snap.log" || fail "the snapshot is not served read-only"
  if nbdcopy "$work/image" "$(uri_of "$sockets/t.sock")" 2>/dev/null; then
    fail "a snapshot served by default accepted a write"
  fi
  stop_serving "$serve_pid" "$work/serve-snap.log"
}

# A second serve of a served disk is refused without touching the first
# server's socket; another kind of file is never taken for a socket; a stale
# socket of a killed server is replaced.
case_serve_socket_safety() {
  local disk other
  disk=$(disk_at disk)
  other=$(disk_at other)
  make_disk "$disk" 8M
  make_disk "$other" 8M
  serve_in_background a "$disk" --socket "$sockets/a.sock"
  if run_brickdisk serve "$disk" --socket "$sockets/a.sock" >"$work/second.log" 2>&1; then
    fail "a second serve of a served disk started"
  fi
  grep -q "in use by another process" "$work/second.log" || fail "no reason given: $(cat "$work/second.log")"
  grep -q "holder: process [0-9]* (nbdkit)" "$work/second.log" || fail "the holder is not named: $(cat "$work/second.log")"
  nbdinfo --size "$(uri_of "$sockets/a.sock")" >/dev/null || fail "the first server lost its socket"
  if run_brickdisk serve "$other" --socket "$sockets/a.sock" >"$work/taken.log" 2>&1; then
    fail "a serve on a socket that a server listens on started"
  fi
  grep -q "Another server listens" "$work/taken.log" || fail "no reason given: $(cat "$work/taken.log")"
  nbdinfo --size "$(uri_of "$sockets/a.sock")" >/dev/null || fail "the first server lost its socket"

  echo "precious" >"$work/precious.txt"
  if run_brickdisk serve "$other" --socket "$work/precious.txt" >"$work/file.log" 2>&1; then
    fail "a serve replaced a regular file by its socket"
  fi
  [ "$(cat "$work/precious.txt")" = precious ] || fail "the regular file was changed"

  # A failed serve leaves no socket.
  if run_brickdisk serve "$other" --socket "$sockets/failed.sock" --plugin "$work/no-such-plugin.so" \
    >"$work/failed.log" 2>&1; then
    fail "a serve with a missing plugin started"
  fi
  [ -e "$sockets/failed.sock" ] && fail "a failed serve left its socket"

  # A killed serve's socket is replaced by the next serve.
  python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$sockets/stale.sock"
  serve_in_background b "$other" --socket "$sockets/stale.sock"
  nbdinfo --size "$(uri_of "$sockets/stale.sock")" >/dev/null || fail "the new server does not answer"
  stop_serving "$serve_pid" "$work/b.log"
  [ -e "$sockets/stale.sock" ] && fail "serve left its socket"
  return 0
}

# The password of an encrypted disk reaches the server through a pipe: a
# password file of several lines works as for every other command, and no
# file holds the password, even when serve is killed while the server starts.
case_serve_password() {
  local disk password="line one $RANDOM$RANDOM"
  disk=$(disk_at disk)
  printf '%s\nline two\n' "$password" >"$work/password"
  run_brickdisk create "$disk" --size 8M --password-file "$work/password" --kdf pbkdf2 >/dev/null
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$sockets/a.sock" --password-file "$work/password"
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/a.sock")" || fail "writing through the server failed"
  stop_serving "$serve_pid" "$work/a.log"
  run_brickdisk export "$disk" "$work/out" -q --password-file "$work/password"
  cmp "$work/image" "$work/out" || fail "what was written is not stored"

  # Killed as soon as the server runs, long before it answers.
  local tmp=${TMPDIR:-/tmp} i server
  "$brickdisk" "${settings[@]}" serve "$disk" --socket "$sockets/b.sock" --password-file "$work/password" \
    >"$work/b.log" 2>&1 &
  serve_pid=$!
  for i in $(seq 1 400); do
    server=$(pgrep -P "$serve_pid" nbdkit || true)
    [ -n "$server" ] && break
    sleep 0.01
  done
  [ -n "$server" ] || fail "no server started: $(cat "$work/b.log")"
  cleanups+=("kill $server 2>/dev/null")
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
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 8M
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$sockets/a.sock"
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/a.sock")" || fail "writing through the server failed"
  local server
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  kill -ABRT "$server"
  local status=0
  wait "$serve_pid" || status=$?
  [ "$status" != 0 ] || fail "serve ended with status 0 after its server died"
  grep -q "died by signal 6" "$work/a.log" ||
    fail "the cause is not named: $(cat "$work/a.log")"
  grep -q "^Stopped serving" "$work/a.log" && fail "serve says it stopped as asked"
  when_free "$work/export.log" run_brickdisk export "$disk" "$work/out" -q || fail "export failed"
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

# is_snapshot_of SNAPSHOT DISK: true when SNAPSHOT holds a disk whose parent
# is DISK.
is_snapshot_of() {
  run_brickdisk info "$1" >"$work/info.txt" 2>&1 && grep -q "^parents: *$2" "$work/info.txt"
}

# Another user cannot answer for a served disk: snapshot never reports a
# snapshot that is not there, and a server starts whatever another user
# listens on.
case_snapshot_control_squatter() {
  [ "$(id -u)" = 0 ] || skip "a squatter of another user needs root to become that user"
  local disk runtime hash
  disk=$(disk_at disk)
  make_disk "$disk" 8M
  runtime=$(mktemp -d /tmp/brickdisk-test-XXXXXX)
  cleanups+=("rm -rf $runtime")
  export XDG_RUNTIME_DIR=$runtime
  hash=$(address_hash "$disk")
  squat abstract "brickdisk-serve-$hash" "$work/squatter.log"

  run_brickdisk snapshot "$disk" "$(disk_at snap1)" >"$work/snap1.log" 2>&1 ||
    fail "snapshot of a disk nobody serves failed: $(cat "$work/snap1.log")"
  is_snapshot_of "$(disk_at snap1)" "$disk" || fail "snapshot reported success without a snapshot: $(cat "$work/snap1.log")"

  serve a "$disk"
  run_brickdisk snapshot "$disk" "$(disk_at snap2)" >"$work/snap2.log" 2>&1 ||
    fail "snapshot of the served disk failed: $(cat "$work/snap2.log")"
  grep -q "taken by the server" "$work/snap2.log" || fail "the server did not take the snapshot: $(cat "$work/snap2.log")"
  is_snapshot_of "$(disk_at snap2)" "$disk" || fail "the server's snapshot is not there"
  stop "$last_pid"
  [ -e "$runtime/serve-$hash.sock" ] && fail "the server left its control socket"

  # A socket of another user where the control socket belongs is not asked.
  squat file "$runtime/serve-$hash.sock" "$work/squatter2.log"
  if run_brickdisk snapshot "$disk" "$(disk_at snap3)" >"$work/snap3.log" 2>&1; then
    fail "snapshot trusted a process of another user: $(cat "$work/snap3.log")"
  fi
  grep -q "another user" "$work/snap3.log" || fail "the refusal does not say why: $(cat "$work/snap3.log")"
}

# Ctrl-C on brickdisk mount while its file is loop-mounted is refused (the
# disk stays served and the loop mount keeps working); once the loop mount is
# undone, Ctrl-C flushes and ends the mount.
case_mount_refuses_to_stop_while_loop_mounted() {
  need nbdfuse fusermount3 mkfs.ext4 e2fsck debugfs
  [ -c /dev/fuse ] || skip "no /dev/fuse"
  [ "$(id -u)" = 0 ] || skip "loop mounts need root"
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 64M
  mkdir "$work/mnt" "$work/fs"
  cleanups+=("umount $work/fs 2>/dev/null")
  mount_in_background "$disk"
  local mount=$mount_pid
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
  run_brickdisk export "$disk" "$work/out" -q
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
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 8M
  mkdir "$work/tmp"
  export TMPDIR=$work/tmp
  if run_brickdisk mount "$disk" "$work/missing/folder" >"$work/missing.log" 2>&1; then
    fail "mounting on a missing folder succeeded"
  fi
  grep -q "does not exist" "$work/missing.log" || fail "no reason given: $(cat "$work/missing.log")"
  grep -q "Mounted" "$work/missing.log" && fail "Mounted printed for a missing folder"
  mkdir "$work/full"
  echo "mine" >"$work/full/file"
  if run_brickdisk mount "$disk" "$work/full" >"$work/full.log" 2>&1; then
    fail "mounting on a folder that is not empty succeeded"
  fi
  grep -q "not empty" "$work/full.log" || fail "no reason given: $(cat "$work/full.log")"
  [ "$(cat "$work/full/file")" = mine ] || fail "the folder's file is hidden"
  mkdir "$work/mnt"
  if run_brickdisk mount "$disk" "$work/mnt" --cache lots >"$work/cache.log" 2>&1; then
    fail "mounting with an unreadable cache size succeeded"
  fi
  [ -z "$(ls -A "$work/tmp")" ] || fail "a failed mount left behind: $(ls -A "$work/tmp")"

  mount_in_background "$disk" --read-only
  local mount=$mount_pid
  [ -f "$work/mnt/disk" ] || fail "Mounted was printed before the disk file was there"
  grep -q -- "-o loop,ro " "$work/mount.log" || fail "no read-only loop mount suggested: $(cat "$work/mount.log")"
  "$brickdisk" unmount "$work/mnt" || fail "unmount failed"
  wait "$mount" || fail "mount did not end cleanly: $(cat "$work/mount.log")"
  [ -z "$(ls -A "$work/tmp")" ] || fail "a mount left behind: $(ls -A "$work/tmp")"
}

# serve --stats FILE: the server's counters in the Prometheus text format,
# written when it starts, while it serves and at its end: the bricks that a
# write through NBD stored show as puts to the store (a disk served without a
# cache folder has no cache counters), and no temporary file stays beside it.
case_serve_stats() {
  local disk
  disk=$(disk_at disk)
  make_disk "$disk" 4M --brick-size 64K
  head -c 1048576 /dev/urandom >"$work/image"
  serve_in_background serve "$disk" --socket "$sockets/s.sock" --stats "$work/stats.prom"
  grep -q '^# TYPE brickdisk_store_requests_total counter$' "$work/stats.prom" ||
    fail "no statistics when serving began: $(cat "$work/stats.prom" 2>&1)"
  nbdcopy --flush "$work/image" "$(uri_of "$sockets/s.sock")"
  stop_serving "$serve_pid" "$work/serve.log"
  local puts bytes
  puts=$(sed -n 's/^brickdisk_store_requests_total{disk="[^"]*",kind="put"} //p' "$work/stats.prom")
  bytes=$(sed -n 's/^brickdisk_store_bytes_total{disk="[^"]*",kind="put"} //p' "$work/stats.prom")
  [ "${puts:-0}" -ge 16 ] || fail "the 16 bricks written are not counted as puts: $(cat "$work/stats.prom")"
  [ "${bytes:-0}" -gt 0 ] || fail "no bytes put: $(cat "$work/stats.prom")"
  grep -qF "disk=\"$disk\"" "$work/stats.prom" || fail "the disk is not named: $(cat "$work/stats.prom")"
  grep -q '^brickdisk_cache_' "$work/stats.prom" && fail "cache counters for a disk without a cache"
  [ "$(ls -A "$work" | grep -c 'stats')" -eq 1 ] || fail "files beside the statistics: $(ls -A "$work")"
}
