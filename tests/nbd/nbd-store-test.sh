#!/usr/bin/env bash
# Serves brick disks that live in an object store (an S3 bucket or a Ceph
# pool) with brickdisk serve and mount, and drives them with real NBD
# clients (nbdinfo, nbdcopy, nbdfuse).
#
#   nbd-store-test.sh STORE CASE BRICKDISK_PROGRAM WORK_FOLDER
#
# STORE is s3 or ceph. The store is the Ceph test cluster's (its pool and its
# radosgw), named by the environment that `scripts/ceph-test-cluster.sh start`
# prints. Every server listens on a Unix socket in the case's own folder and
# is stopped by its pid. A case that needs what the machine lacks prints
# "SKIPPED: reason" and exits 77 (CTest's skip code).
#
# The cases of nbd-shared-cases.sh run here as for folder disks, each served
# with brickdisk serve; CASE_cached runs such a CASE with every disk it
# serves through a local cache folder (--cache-dir). The folder cases of
# nbd-test.sh and the cases that check the same for a disk in the store:
#
#   folder case                                 store case
#   info_and_map                                info_and_map, info_and_map_cached
#   copy_in_and_out                             copy_in_and_out, copy_in_and_out_cached
#   fio_verify_after_restart                    fio_kill_and_verify
#   kill_after_flush                            kill_after_flush, cache_kill_and_serve_again,
#                                               cache_refuses_disk_written_elsewhere
#   second_server_refused                       read_only_and_lock, two_servers_refused
#   snapshot_unchanged_while_parent_written     snapshot_unchanged_while_parent_written,
#                                               snapshot_unchanged_while_parent_written_cached
#   live_snapshots                              live_snapshots, live_snapshots_cached,
#                                               snapshot_while_serving
#   serve_command                               serve_command, write_flush_export
#   mount_ext4                                  mount
#   full_file_system_keeps_writes               does not apply to a store: it fills the
#                                               local file system that holds the disk
#   stop_with_unstored_bricks_fails             stop_with_unstored_bricks_fails (S3 only: a
#                                               Ceph pool cannot refuse a disk's bricks
#                                               but not its lock)
#   rewrite_unchanged_stores_nothing            rewrite_unchanged_stores_nothing,
#                                               rewrite_unchanged_stores_nothing_cached
#   mount_refuses_to_stop_while_loop_mounted    mount_refuses_to_stop_while_loop_mounted
#   mount_edges                                 mount_edges
#   serve_socket_safety                         serve_socket_safety
#   serve_password                              serve_password
#   serve_server_dies                           serve_server_dies
#   snapshot_control_squatter                   snapshot_control_squatter
#   plugin_checks_the_disk                      does not apply to a store: it runs nbdkit
#                                               itself and moves a parent disk's folder
#   serve_stats                                 serve_stats, cache_commands_and_stats
set -euo pipefail

store=$1
case_name=$2
brickdisk=$3
work=$4/$store-$case_name

rm -rf "$work"
mkdir -p "$work"
declare -a cleanups=()

cleanup() {
  local command
  for command in "${cleanups[@]}"; do eval "$command" || true; done
}
trap cleanup EXIT

# shellcheck source=nbd-common.sh
source "$(dirname "${BASH_SOURCE[0]}")/nbd-common.sh"
# shellcheck source=nbd-shared-cases.sh
source "$(dirname "${BASH_SOURCE[0]}")/nbd-shared-cases.sh"

need nbdkit nbdinfo nbdcopy

# s3_request METHOD PATH [BODY]: a request to the S3 test service, signed
# with its keys (radosgw wants the payload's digest, even of an empty body).
s3_request() {
  local body=${3:-}
  curl -fsS --aws-sigv4 "aws:amz:us-east-1:s3" -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: $(printf '%s' "$body" | sha256sum | cut -d' ' -f1)" \
    -X "$1" --data-binary "$body" "$AWS_ENDPOINT_URL/$2"
}

# Each run has a place of its own in the store, so runs never meet.
run=nbd-${case_name//_/-}-$$-$RANDOM
case $store in
s3)
  [ -n "${AWS_ENDPOINT_URL:-}" ] && [ -n "${AWS_ACCESS_KEY_ID:-}" ] ||
    skip "no S3 test service: run eval \"\$(scripts/ceph-test-cluster.sh start)\" first"
  need curl
  s3_request PUT "$run" >/dev/null || fail "cannot create the bucket $run"
  place=s3://$run
  # Short lock leases, so that the lock of a server stopped by a failed case
  # does not outlive it for long.
  settings=(--s3-lock-lease 5)
  ;;
ceph)
  [ -n "${CEPH_CONF:-}" ] && [ -n "${BRICKDISK_CEPH_POOL:-}" ] ||
    skip "no Ceph test cluster: run eval \"\$(scripts/ceph-test-cluster.sh start)\" first"
  place=rados://$BRICKDISK_CEPH_POOL/$run
  settings=(--ceph-lock-lease 5)
  ;;
*)
  fail "unknown store $store"
  ;;
esac

# The control sockets of this run's servers, in a runtime folder of its own
# (short enough a path for a Unix socket).
XDG_RUNTIME_DIR=$(mktemp -d /tmp/brickdisk-test-XXXXXX)
export XDG_RUNTIME_DIR
cleanups+=("rm -rf $XDG_RUNTIME_DIR")
# The sockets of the shared cases' servers, in a folder of a short path too.
sockets=$(mktemp -d /tmp/brickdisk-nbd-XXXXXX)
cleanups+=("rm -rf $sockets")

# make_disk DISK SIZE [create options...]: an unencrypted disk, of 64 KiB
# bricks unless the options say otherwise.
make_disk() {
  local disk=$1 size=$2
  shift 2
  local options=("$@")
  [[ " ${options[*]} " == *" --brick-size "* ]] || options+=(--brick-size 64K)
  run_brickdisk create "$disk" --size "$size" --no-encryption "${options[@]}" >/dev/null || fail "cannot create $disk"
}

# disk_at NAME: the case's disk NAME, in the run's place in the store.
disk_at() { echo "$place/$1"; }

declare -A serve_logs=()

# serve NAME DISK [plugin parameters...]: brickdisk serve DISK on
# $sockets/NAME.sock with the options that stand for the plugin's parameters,
# through a cache folder of the disk's own when the case runs with one; sets
# $last_pid.
serve() {
  local name=$1 disk=$2 parameter
  shift 2
  local options=()
  for parameter in "$@"; do
    case $parameter in
    readonly=true) options+=(--read-only) ;;
    cache=*) options+=(--cache "${parameter#cache=}") ;;
    password-file=*) options+=(--password-file "${parameter#password-file=}") ;;
    stats=*) options+=(--stats "${parameter#stats=}") ;;
    *) fail "serve has no option for the plugin's $parameter" ;;
    esac
  done
  [ "$with_cache" = yes ] && options+=(--cache-dir "$work/cache-${disk##*/}" --cache-size 4M)
  serve_in_background "$name" "$disk" --socket "$sockets/$name.sock" "${options[@]}"
  last_pid=$serve_pid
  serve_logs[$serve_pid]=$work/$name.log
}

# stop PID: Ctrl-C on a serve started by serve, which must end cleanly.
stop() {
  stop_serving "$1" "${serve_logs[$1]}"
}

# kill_server PID: kills the server of a serve started by serve with -9;
# serve then ends.
kill_server() {
  local server
  server=$(pgrep -P "$1" nbdkit) || fail "no server process"
  kill -9 "$server"
  wait "$1" 2>/dev/null || true
}

# serve_after_kill NAME ARGS...: serve_in_background, once the lease lock of
# a killed server has run out (it keeps the disk until then).
serve_after_kill() {
  local name=$1 _
  shift
  for _ in $(seq 1 30); do
    "$brickdisk" "${settings[@]}" serve "$@" >"$work/$name.log" 2>&1 &
    serve_pid=$!
    cleanups+=("kill $serve_pid 2>/dev/null; wait $serve_pid 2>/dev/null")
    wait_for_output "$work/$name.log" '^Serving' "$serve_pid" && return 0
    wait "$serve_pid" 2>/dev/null || true
    grep -q "in use by another process" "$work/$name.log" || fail "serving again failed: $(cat "$work/$name.log")"
    sleep 1
  done
  fail "serving again never started: $(cat "$work/$name.log")"
}

# export_disk DISK FILE: the disk's bytes.
export_disk() {
  run_brickdisk export "$1" "$2" -q 2>"$work/export.log" || fail "cannot export $1"
}

# Written through NBD, flushed and stopped: the disk in the store holds the
# bytes, and the server got the store's settings from serve.
case_write_flush_export() {
  local disk=$place/disk
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock"
  local server
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  tr '\0' '\n' <"/proc/$server/cmdline" >"$work/server-arguments"
  grep -qx "disk=$disk" "$work/server-arguments" || fail "the server was not given the disk: $(cat "$work/server-arguments")"
  grep -qx -- "$store-lock-lease=5" "$work/server-arguments" ||
    fail "the server was not given the store's settings: $(cat "$work/server-arguments")"
  [ "$(nbdinfo --size "$(uri_of "$work/a.sock")")" = 4194304 ] || fail "the served disk has the wrong size"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  stop_serving "$serve_pid" "$work/a.log"
  export_disk "$disk" "$work/out"
  cmp "$work/image" "$work/out" || fail "the disk in the store does not hold what was written"
}

# A snapshot taken while the disk is served holds what was written before
# it; the disk goes on taking writes. The server's control socket lies in the
# runtime folder, named after the disk's address.
case_snapshot_while_serving() {
  local disk=$place/disk snap=$place/snap
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/first"
  head -c 4194304 /dev/urandom >"$work/second"
  serve_in_background a "$disk" --socket "$work/a.sock"
  local control
  control=$XDG_RUNTIME_DIR/serve-$(address_hash "$disk").sock
  [ -S "$control" ] || fail "no control socket at $control: $(ls -A "$XDG_RUNTIME_DIR")"
  nbdcopy --flush "$work/first" "$(uri_of "$work/a.sock")" || fail "writing the first image failed"
  run_brickdisk snapshot "$disk" "$snap" >"$work/snapshot.log" 2>&1 ||
    fail "snapshot of the served disk failed: $(cat "$work/snapshot.log")"
  grep -q "taken by the server" "$work/snapshot.log" || fail "the server did not take the snapshot"
  nbdcopy --flush "$work/second" "$(uri_of "$work/a.sock")" || fail "writing the second image failed"
  stop_serving "$serve_pid" "$work/a.log"
  [ -e "$control" ] && fail "the server left its control socket"
  export_disk "$snap" "$work/snap.img"
  cmp "$work/first" "$work/snap.img" || fail "the snapshot does not hold what was written before it"
  export_disk "$disk" "$work/disk.img"
  cmp "$work/second" "$work/disk.img" || fail "the disk does not hold what was written after the snapshot"
}

# Served read-only, the disk refuses writes and keeps its bytes; while a
# writer serves it, a second server is refused by the store's lock.
case_read_only_and_lock() {
  local disk=$place/disk
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  if run_brickdisk serve "$disk" --socket "$work/b.sock" >"$work/second.log" 2>&1; then
    fail "a second serve of a served disk started"
  fi
  grep -q "in use by another process" "$work/second.log" || fail "no reason given: $(cat "$work/second.log")"
  stop_serving "$serve_pid" "$work/a.log"

  serve_in_background c "$disk" --socket "$work/c.sock" --read-only
  grep -q "(read-only)" "$work/c.log" || fail "serve does not say read-only: $(cat "$work/c.log")"
  head -c 4194304 /dev/urandom >"$work/other"
  if nbdcopy --flush "$work/other" "$(uri_of "$work/c.sock")" 2>"$work/write.log"; then
    fail "a disk served read-only accepted a write"
  fi
  nbdcopy "$(uri_of "$work/c.sock")" "$work/read"
  cmp "$work/image" "$work/read" || fail "the disk served read-only does not read what was written"
  if run_brickdisk snapshot "$disk" "$place/snap" >"$work/snapshot.log" 2>&1; then
    fail "a snapshot was taken while a reader served the disk"
  fi
  stop_serving "$serve_pid" "$work/c.log"
  export_disk "$disk" "$work/out"
  cmp "$work/image" "$work/out" || fail "the disk changed while served read-only"
}

# brickdisk mount of a disk in the store: a file system made through the
# disk file is stored, and unmount ends the mount.
case_mount() {
  need nbdfuse fusermount3 mkfs.ext4 e2fsck
  [ -c /dev/fuse ] || skip "no /dev/fuse"
  local disk=$place/disk
  make_disk "$disk" 32M
  mkdir "$work/mnt"
  mount_in_background "$disk"
  local mount=$mount_pid
  mkfs.ext4 -q -F "$work/mnt/disk" || fail "mkfs.ext4 failed"
  "$brickdisk" unmount "$work/mnt" || fail "unmount failed"
  wait "$mount" || fail "mount did not end cleanly: $(cat "$work/mount.log")"
  export_disk "$disk" "$work/out"
  e2fsck -fn "$work/out" >"$work/fsck.log" 2>&1 || fail "the stored file system has errors: $(cat "$work/fsck.log")"
}

# Served through a local cache folder and killed (-9) after a flush: serving
# again with the same folder uploads what the cache held before it serves, so
# the store then holds every flushed byte. The folder refuses another disk.
case_cache_kill_and_serve_again() {
  local disk=$place/disk cache=$work/cache server
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache" --cache-size 1M --upload-jobs 2
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  tr '\0' '\n' <"/proc/$server/cmdline" >"$work/server-arguments"
  grep -qx "cache-dir=$cache" "$work/server-arguments" ||
    fail "the server was not given the cache folder: $(cat "$work/server-arguments")"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  kill -9 "$server"
  wait "$serve_pid" 2>/dev/null && fail "serve ended cleanly although its server was killed"
  serve_after_kill b "$disk" --socket "$work/b.sock" --cache-dir "$cache"
  stop_serving "$serve_pid" "$work/b.log"
  export_disk "$disk" "$work/out"
  cmp "$work/image" "$work/out" || fail "the store lacks bytes flushed into the cache before the kill"

  make_disk "$place/other" 1M
  if run_brickdisk serve "$place/other" --socket "$work/c.sock" --cache-dir "$cache" \
    >"$work/c.log" 2>&1; then
    fail "the cache folder of another disk was used"
  fi
  grep -q "belongs to another disk" "$work/c.log" || fail "no reason given: $(cat "$work/c.log")"
}

# A cache folder serves its disk again after its own servers wrote it, a
# snapshot taken while it served included; once another program wrote the
# disk without it, the folder is refused, and serves again once dropped.
case_cache_refuses_disk_written_elsewhere() {
  local disk=$place/disk snap=$place/snap cache=$work/cache
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/first"
  head -c 4194304 /dev/urandom >"$work/second"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache"
  nbdcopy --flush "$work/first" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  run_brickdisk snapshot "$disk" "$snap" >"$work/snapshot.log" 2>&1 ||
    fail "snapshot of the served disk failed: $(cat "$work/snapshot.log")"
  stop_serving "$serve_pid" "$work/a.log"
  serve_in_background b "$disk" --socket "$work/b.sock" --cache-dir "$cache"
  stop_serving "$serve_pid" "$work/b.log"

  run_brickdisk import "$disk" "$work/second" -q >"$work/import.log" 2>&1 ||
    fail "import without the cache failed: $(cat "$work/import.log")"
  if timeout 60 "$brickdisk" "${settings[@]}" serve "$disk" --socket "$work/c.sock" --cache-dir "$cache" >"$work/c.log" 2>&1; then
    fail "the cache folder served a disk written without it"
  fi
  grep -q "it was written without this cache folder" "$work/c.log" || fail "no reason given: $(cat "$work/c.log")"
  grep -q "brickdisk cache drop '$cache'" "$work/c.log" || fail "no command given: $(cat "$work/c.log")"

  run_brickdisk cache drop "$cache" >"$work/drop.log" 2>&1 || fail "cache drop failed: $(cat "$work/drop.log")"
  serve_in_background d "$disk" --socket "$work/d.sock" --cache-dir "$cache"
  nbdcopy "$(uri_of "$work/d.sock")" "$work/out" || fail "reading through the server failed"
  stop_serving "$serve_pid" "$work/d.log"
  cmp "$work/second" "$work/out" || fail "the server did not read what the other program wrote"
  export_disk "$snap" "$work/snap.img"
  cmp "$work/first" "$work/snap.img" || fail "the snapshot does not hold what was written before it"
}

# fio writes verifiable blocks through a cached server and flushes; a second
# fio run is killed with the server (-9) in the middle. Served again with the
# same cache, and then from the store alone, every block of the first run
# verifies.
case_fio_kill_and_verify() {
  need fio
  fio --enghelp 2>/dev/null | grep -qx '[[:space:]]*nbd' || skip "fio has no nbd engine"
  local disk=$place/disk cache=$work/cache server
  make_disk "$disk" 32M
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache" --cache-size 4M
  # Every block of the first half once, in random order, flushed every 64.
  local first=(--name=first --ioengine=nbd --rw=randwrite --bs=4k --offset=0 --size=16M --iodepth=16
    --verify=crc32c --randseed=42 --fsync=64 --output="$work/fio-first.txt")
  fio "${first[@]}" --uri="$(uri_of "$work/a.sock")" --do_verify=0 --end_fsync=1 ||
    fail "fio writing failed: $(cat "$work/fio-first.txt")"
  # The second run writes the other half without end, flushing as it goes.
  fio --name=second --ioengine=nbd --uri="$(uri_of "$work/a.sock")" --rw=randwrite --bs=4k --offset=16M \
    --size=16M --iodepth=16 --fsync=16 --time_based --runtime=60 --output="$work/fio-second.txt" &
  local writer=$!
  cleanups+=("kill $writer 2>/dev/null")
  sleep 2
  kill -0 "$writer" 2>/dev/null || fail "the second fio run ended early: $(cat "$work/fio-second.txt")"
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  kill -9 "$server"
  wait "$writer" 2>/dev/null && fail "fio went on although its server was killed"
  wait "$serve_pid" 2>/dev/null && fail "serve ended cleanly although its server was killed"

  serve_after_kill b "$disk" --socket "$work/b.sock" --cache-dir "$cache" --cache-size 4M
  fio "${first[@]}" --uri="$(uri_of "$work/b.sock")" --verify_only=1 ||
    fail "fio verify through the cache failed: $(cat "$work/fio-first.txt")"
  stop_serving "$serve_pid" "$work/b.log"
  serve_in_background c "$disk" --socket "$work/c.sock"
  fio "${first[@]}" --uri="$(uri_of "$work/c.sock")" --verify_only=1 ||
    fail "fio verify from the store failed: $(cat "$work/fio-first.txt")"
  stop_serving "$serve_pid" "$work/c.log"
}

# The server offers several connections to one client; nbdcopy writes and
# reads the disk over four at once, through the cache and without it.
case_many_connections() {
  local disk=$place/disk cache=$work/cache
  make_disk "$disk" 16M
  head -c 16777216 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache" --cache-size 4M
  nbdinfo --can multi-conn "$(uri_of "$work/a.sock")" || fail "the server does not offer several connections"
  nbdcopy --connections 4 --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing over 4 connections failed"
  nbdcopy --connections 4 "$(uri_of "$work/a.sock")" "$work/read" || fail "reading over 4 connections failed"
  cmp "$work/image" "$work/read" || fail "4 connections read other bytes than they wrote"
  stop_serving "$serve_pid" "$work/a.log"
  serve_in_background b "$disk" --socket "$work/b.sock"
  nbdcopy --connections 4 "$(uri_of "$work/b.sock")" "$work/read-store" || fail "reading the store over 4 failed"
  stop_serving "$serve_pid" "$work/b.log"
  cmp "$work/image" "$work/read-store" || fail "the store does not hold what 4 connections wrote"
}

# A working set four times the cache's size: written, read back through the
# server (bricks evicted and fetched again) and exported, byte for byte; the
# cache folder ends within its size.
case_eviction_larger_than_cache() {
  local disk=$place/disk cache=$work/cache
  make_disk "$disk" 8M
  head -c 8388608 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache" --cache-size 2M
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  nbdcopy "$(uri_of "$work/a.sock")" "$work/read" || fail "reading through the server failed"
  cmp "$work/image" "$work/read" || fail "the disk read other bytes back through a cache too small for it"
  stop_serving "$serve_pid" "$work/a.log"
  local cached
  cached=$(find "$cache/files" -type f -printf '%s\n' | awk '{ n += $1 } END { print n + 0 }')
  # Within its size, give or take the bricks read last (64 KiB each).
  [ "$cached" -le $((2097152 + 4 * 65536)) ] || fail "the cache folder holds $cached bytes, over its 2 MiB"
  [ "$cached" -gt 0 ] || fail "the cache folder holds nothing"
  export_disk "$disk" "$work/out"
  cmp "$work/image" "$work/out" || fail "the store does not hold what was written"
}

# Two servers of one disk are refused, whichever cache folders they name, and
# a cache folder in use by a server is refused to a server of another disk.
case_two_servers_refused() {
  local disk=$place/disk
  make_disk "$disk" 4M
  make_disk "$place/other" 4M
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$work/cache-a"
  if run_brickdisk serve "$disk" --socket "$work/b.sock" --cache-dir "$work/cache-b" \
    >"$work/b.log" 2>&1; then
    fail "a second server of the disk started with a cache folder of its own"
  fi
  grep -q "in use by another process" "$work/b.log" || fail "no reason given: $(cat "$work/b.log")"
  if run_brickdisk serve "$place/other" --socket "$work/c.sock" --cache-dir "$work/cache-a" \
    >"$work/c.log" 2>&1; then
    fail "a server of another disk started on a cache folder in use"
  fi
  grep -Eq "in use|belongs to another disk" "$work/c.log" || fail "no reason given: $(cat "$work/c.log")"
  stop_serving "$serve_pid" "$work/a.log"
}

# A trim of the whole disk through a cached server deletes its brick objects
# in the store, and the disk then maps as one zero extent.
case_trim_deletes_objects() {
  need fio
  fio --enghelp 2>/dev/null | grep -qx '[[:space:]]*nbd' || skip "fio has no nbd engine"
  local disk=$place/disk
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$work/cache"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  stop_serving "$serve_pid" "$work/a.log"
  [ "$(brick_files "$disk")" = 64 ] || fail "the store holds $(brick_files "$disk") brick files, not 64"
  serve_in_background b "$disk" --socket "$work/b.sock" --cache-dir "$work/cache"
  fio --name=trim --ioengine=nbd --uri="$(uri_of "$work/b.sock")" --rw=trim --bs=1M --size=4M --end_fsync=1 \
    --output="$work/fio.txt" || fail "trimming the disk failed: $(cat "$work/fio.txt")"
  nbdinfo --map "$(uri_of "$work/b.sock")" >"$work/map.txt" || fail "no map"
  [ "$(awk '{ print $1, $2, $4 }' "$work/map.txt")" = "0 4194304 zero" ] || fail "the trimmed disk maps as $(cat "$work/map.txt")"
  stop_serving "$serve_pid" "$work/b.log"
  [ "$(brick_files "$disk")" = 0 ] || fail "the store keeps $(brick_files "$disk") brick files after the trim"
  export_disk "$disk" "$work/out"
  cmp "$work/out" <(head -c 4194304 /dev/zero) || fail "the trimmed disk does not read zeros"
}

# A served disk's cache folder through brickdisk cache and --stats: while a
# server holds the folder, info says so and flush and drop are refused; the
# server is given --max-dirty and --stats; its statistics count the cache's
# work and the store's puts; once it has stopped (uploading everything),
# info shows no dirty brick, flush has nothing to upload and drop deletes
# the folder.
case_cache_commands_and_stats() {
  local disk=$place/disk cache=$work/cache stats=$work/stats.prom server
  make_disk "$disk" 4M
  head -c 2097152 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache-dir "$cache" --max-dirty 8 --stats "$stats"
  server=$(pgrep -P "$serve_pid" nbdkit) || fail "no server process"
  tr '\0' '\n' <"/proc/$server/cmdline" >"$work/server-arguments"
  grep -qx "max-dirty=8" "$work/server-arguments" || fail "no max-dirty=8: $(cat "$work/server-arguments")"
  grep -qx "stats=$stats" "$work/server-arguments" || fail "no stats=: $(cat "$work/server-arguments")"
  nbdcopy --flush "$work/image" "$(uri_of "$work/a.sock")" || fail "writing through the server failed"
  nbdcopy "$(uri_of "$work/a.sock")" "$work/read-back" || fail "reading through the server failed"

  "$brickdisk" cache info "$cache" >"$work/info.log" 2>&1 || fail "cache info failed: $(cat "$work/info.log")"
  grep -q "^disk: $disk$" "$work/info.log" || fail "info does not name the disk: $(cat "$work/info.log")"
  grep -q "^in use: yes" "$work/info.log" || fail "info does not see the server: $(cat "$work/info.log")"
  local action
  for action in flush drop; do
    if run_brickdisk cache "$action" "$cache" >"$work/$action.log" 2>&1; then
      fail "cache $action ran while a server held the folder"
    fi
    grep -q "in use by a server" "$work/$action.log" || fail "no reason given: $(cat "$work/$action.log")"
  done
  stop_serving "$serve_pid" "$work/a.log"

  local misses puts
  misses=$(sed -n 's/^brickdisk_cache_misses_total{disk="[^"]*"} //p' "$stats")
  puts=$(sed -n 's/^brickdisk_store_requests_total{disk="[^"]*",kind="put"} //p' "$stats")
  [ -n "$misses" ] || fail "no cache counters: $(cat "$stats")"
  [ "${puts:-0}" -ge 32 ] || fail "the 32 uploaded bricks are not counted as puts: $(cat "$stats")"
  grep -q '^brickdisk_cache_dirty_files{disk="[^"]*"} 0$' "$stats" || fail "dirty at the end: $(cat "$stats")"

  "$brickdisk" cache info "$cache" --json >"$work/info.json" 2>&1 || fail "cache info failed: $(cat "$work/info.json")"
  grep -q '"dirtyFiles": 0' "$work/info.json" || fail "dirty after the server's end: $(cat "$work/info.json")"
  grep -q '"inUse": false' "$work/info.json" || fail "still in use: $(cat "$work/info.json")"
  run_brickdisk cache flush "$cache" >"$work/flush.log" 2>&1 || fail "flush: $(cat "$work/flush.log")"
  grep -q "^nothing to upload" "$work/flush.log" || fail "flush uploaded something: $(cat "$work/flush.log")"
  "$brickdisk" cache drop "$cache" >"$work/drop.log" 2>&1 || fail "drop failed: $(cat "$work/drop.log")"
  [ -e "$cache" ] && fail "the cache folder is still there"
  export_disk "$disk" "$work/out"
  cmp <(head -c 2097152 "$work/out") "$work/image" || fail "the store lacks what was written"
}

# A server that stops while the store refuses its bricks says how many and
# which it could not store, and serve ends with a failure. The bucket's
# policy refuses the objects of the disk's bricks, not its lock, as a store
# that is full or refuses a writer does; only an S3 bucket can be told so.
case_stop_with_unstored_bricks_fails() {
  [ "$store" = s3 ] || skip "only an S3 bucket's policy refuses a disk's bricks but not its lock"
  local disk=$place/disk
  make_disk "$disk" 4M
  head -c 4194304 /dev/urandom >"$work/image"
  serve_in_background a "$disk" --socket "$work/a.sock" --cache 64M
  s3_request PUT "$run?policy=" '{"Version": "2012-10-17", "Statement": [{"Effect": "Deny", "Principal": "*",
    "Action": "s3:PutObject", "Resource": "arn:aws:s3:::'"$run"'/disk/bricks/*"}]}' >"$work/policy.log" 2>&1 ||
    fail "cannot refuse the bricks: $(cat "$work/policy.log")"
  nbdcopy "$work/image" "$(uri_of "$work/a.sock")" || fail "writes into the cache failed"
  kill -INT "$serve_pid"
  if wait "$serve_pid"; then
    fail "serve exited 0 with bricks it could not store: $(cat "$work/a.log")"
  fi
  grep -q "changed bricks not stored (bricks " "$work/a.log" ||
    fail "the server did not name the bricks it could not store: $(cat "$work/a.log")"
  grep -q "failed as it stopped" "$work/a.log" || fail "serve did not end with an error: $(cat "$work/a.log")"
  s3_request DELETE "$run?policy=" >/dev/null || fail "cannot take the bucket's policy back"
  [ "$(brick_files "$disk")" = 0 ] || fail "the store took bricks although its policy refused them"
}

# CASE_cached runs a shared CASE with every disk it serves through a cache
# folder of its own.
with_cache=no
if [[ $case_name == *_cached ]]; then
  with_cache=yes
  "case_${case_name%_cached}"
else
  "case_$case_name"
fi
echo "PASSED: $store $case_name"
