# What the NBD test scripts share: ending a case as failed (with the tails
# of its logs) or skipped, asking for the tools a case needs, and running
# brickdisk serve. Sourced by nbd-test.sh and nbd-store-test.sh after they
# set $work, $brickdisk and $settings (the global options that reach the
# disk's store: none for a disk in a local folder).

fail() {
  echo "FAILED: $*" >&2
  for log in "$work"/*.log; do
    [ -f "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}

skip() {
  echo "SKIPPED: $*"
  exit 77
}

need() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || skip "$tool is not installed"
  done
}

uri_of() { echo "nbd+unix:///?socket=$1"; }

# run_brickdisk ARGS...: brickdisk with the store's settings. A program
# started in the background is started without it, so that $! is the
# program's pid (a signal to it then reaches the program).
run_brickdisk() {
  "$brickdisk" "${settings[@]}" "$@"
}

# wait_for_output LOG PATTERN PID: waits until LOG holds PATTERN or the
# program PID has ended; true when the pattern came.
wait_for_output() {
  local log=$1 pattern=$2 pid=$3 i
  for i in $(seq 1 1200); do
    grep -q -- "$pattern" "$log" 2>/dev/null && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  grep -q -- "$pattern" "$log" 2>/dev/null
}

# serve_in_background NAME ARGS...: runs brickdisk serve ARGS... with its
# output in $work/NAME.log, waits until it serves and sets $serve_pid.
serve_in_background() {
  local name=$1
  shift
  "$brickdisk" "${settings[@]}" serve "$@" >"$work/$name.log" 2>&1 &
  serve_pid=$!
  cleanups+=("kill $serve_pid 2>/dev/null; wait $serve_pid 2>/dev/null")
  wait_for_output "$work/$name.log" '^Serving' "$serve_pid" || fail "serve $name did not start: $(cat "$work/$name.log")"
}

# mount_in_background DISK [OPTIONS...]: runs brickdisk mount DISK $work/mnt
# OPTIONS... with its output in $work/mount.log, waits until it has mounted
# (skips where FUSE mounts are not allowed) and sets $mount_pid.
mount_in_background() {
  local disk=$1
  shift
  "$brickdisk" "${settings[@]}" mount "$disk" "$work/mnt" "$@" >"$work/mount.log" 2>&1 &
  mount_pid=$!
  cleanups+=("fusermount3 -u $work/mnt 2>/dev/null; kill $mount_pid 2>/dev/null")
  wait_for_output "$work/mount.log" '^Mounted' "$mount_pid" || {
    grep -qi "fuse" "$work/mount.log" && skip "FUSE mounts are not allowed here: $(cat "$work/mount.log")"
    fail "the disk was not mounted: $(cat "$work/mount.log")"
  }
}

# stop_serving PID LOG: Ctrl-C, and serve must end cleanly.
stop_serving() {
  kill -INT "$1"
  wait "$1" || fail "serve did not end cleanly: $(cat "$2")"
}

# when_free LOG COMMAND...: runs COMMAND with its output in LOG, again each
# second while the disk is in use (the lease lock of a killed server keeps a
# disk in a store until the lease runs out); returns the command's status.
when_free() {
  local log=$1 status _
  shift
  for _ in $(seq 1 30); do
    "$@" >"$log" 2>&1 && return 0
    status=$?
    grep -q "in use by another process" "$log" || return "$status"
    sleep 1
  done
  return "$status"
}

# address_hash DISK: the hexadecimal FNV-1a hash of the disk's name, which
# names the control socket of its server.
address_hash() {
  python3 -c '
import sys
h = 14695981039346656037
for c in sys.argv[1].encode():
    h = ((h ^ c) * 1099511628211) % 2**64
print("%016x" % h)' "$1"
}

# brick_files DISK: how many brick files the disk itself holds (not its
# parents).
brick_files() {
  run_brickdisk du "$1" --json | python3 -c '
import json, sys
print(next(d["brickFiles"] for d in json.load(sys.stdin)["disks"] if d["folder"] == sys.argv[1]))' "$1"
}
