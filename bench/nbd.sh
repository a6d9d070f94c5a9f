#!/usr/bin/env bash
# Serving speed of a brick disk over NBD, side by side with its peers, all on
# Unix sockets and measured with the same client: fio's nbd engine, one job,
# queue depth 16.
#
#   bench/nbd.sh [BUILD_FOLDER] [WORK_FOLDER]
#
# Servers:
#   brickdisk   nbdkit + the brickdisk plugin (lz4, encrypted, cache 512 MiB)
#   file        nbdkit's file plugin over the raw image (the machine's limit)
#   qcow2-luks  qemu-nbd -t --shared=0 over a LUKS-encrypted qcow2
#   qcow2       qemu-nbd -t --shared=0 over a plain qcow2
# Runs (each server starts from the same 2 GiB image of random data):
#   seq-read / seq-write   1 GiB in 1 MiB blocks (the write ends with a flush)
#   rand-read-256M / rand-write-256M   4 KiB, RUNTIME seconds, first 256 MiB
#   rand-read-all / rand-write-all     4 KiB, RUNTIME seconds, whole disk
# ROUNDS rounds (default 3), RUNTIME seconds (default 30), BRICK_SIZE the
# brick disk's brick size (default: create's own), SETTLE seconds of rest
# after each server's copy is made (default 30); the medians are printed as
# a Markdown table. Needs 5 GiB free in WORK_FOLDER (the image and one copy
# at a time).
set -euo pipefail

build=$(realpath "${1:-build/normal}")
work=${2:-/tmp/brickdisk-nbd-bench}
rounds=${ROUNDS:-3}
runtime=${RUNTIME:-30}
brick_size=${BRICK_SIZE:-}
settle=${SETTLE:-30}
brickdisk=$build/tools/brickdisk
plugin=$build/plugins/nbdkit/nbdkit-brickdisk-plugin.so
servers=(${SERVERS:-brickdisk file qcow2-luks qcow2})
runs=(seq-read seq-write rand-read-256M rand-write-256M rand-read-all rand-write-all)

for tool in nbdkit nbdinfo fio qemu-img qemu-nbd python3; do
  command -v "$tool" >/dev/null || { echo "bench/nbd.sh needs $tool" >&2; exit 1; }
done
[ -x "$brickdisk" ] && [ -f "$plugin" ] || { echo "build brickdisk_cli and the nbdkit plugin in $build first" >&2; exit 1; }

mkdir -p "$work"
work=$(realpath "$work")
socket=$work/server.sock
results=$work/results.tsv
: >"$results"
password=$work/password
printf 'bench-password' >"$password"
server_pid=

stop_server() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=
  fi
}
trap stop_server EXIT

echo "== preparing a 2 GiB image of random data"
[ -f "$work/image.raw" ] || head -c 2147483648 /dev/urandom >"$work/image.raw"

# fresh_copy SERVER: the server's disk, made anew from the image.
fresh_copy() {
  case $1 in
  brickdisk)
    rm -rf "$work/disk"
    "$brickdisk" create "$work/disk" --size 2G --compression lz4 ${brick_size:+--brick-size "$brick_size"} \
      --password-file "$password" >/dev/null
    "$brickdisk" import "$work/disk" "$work/image.raw" --password-file "$password" >/dev/null
    ;;
  file) cp --sparse=never "$work/image.raw" "$work/copy.raw" ;;
  qcow2) qemu-img convert -f raw -O qcow2 "$work/image.raw" "$work/copy.qcow2" ;;
  qcow2-luks)
    # A coarse CPU clock can make the key-derivation timing fail; sha512 and
    # a fixed iteration count avoid the timing.
    qemu-img convert -f raw -O qcow2 --object "secret,id=sec0,file=$password" \
      -o encrypt.format=luks,encrypt.key-secret=sec0,encrypt.hash-alg=sha512,encrypt.iter-time=100 \
      "$work/image.raw" "$work/copy-luks.qcow2"
    ;;
  esac
}

discard_copy() {
  case $1 in
  brickdisk) rm -rf "$work/disk" ;;
  file) rm -f "$work/copy.raw" ;;
  qcow2) rm -f "$work/copy.qcow2" ;;
  qcow2-luks) rm -f "$work/copy-luks.qcow2" ;;
  esac
}

start_server() {
  rm -f "$socket"
  case $1 in
  brickdisk) nbdkit -f -U "$socket" "$plugin" disk="$work/disk" cache=512M password-file="$password" & ;;
  file) nbdkit -f -U "$socket" file "$work/copy.raw" & ;;
  qcow2) qemu-nbd -t --shared=0 -k "$socket" -f qcow2 "$work/copy.qcow2" & ;;
  qcow2-luks)
    qemu-nbd -t --shared=0 -k "$socket" --object "secret,id=sec0,file=$password" \
      --image-opts "driver=qcow2,file.filename=$work/copy-luks.qcow2,encrypt.key-secret=sec0" &
    ;;
  esac
  server_pid=$!
  local i
  for i in $(seq 1 400); do
    nbdinfo --size "nbd+unix:///?socket=$socket" >/dev/null 2>&1 && return 0
    sleep 0.05
  done
  echo "server $1 did not start" >&2
  exit 1
}

# run_fio RUN: prints MiB/s for the sequential runs, operations per second
# for the random ones.
run_fio() {
  local args=(--name="$1" --ioengine=nbd --uri="nbd+unix:///?socket=$socket" --numjobs=1 --iodepth=16
    --output-format=json --output="$work/fio.json")
  case $1 in
  seq-read) args+=(--rw=read --bs=1M --size=1G) ;;
  seq-write) args+=(--rw=write --bs=1M --size=1G --end_fsync=1) ;;
  rand-read-256M) args+=(--rw=randread --bs=4k --size=256M --time_based --runtime="$runtime") ;;
  rand-write-256M) args+=(--rw=randwrite --bs=4k --size=256M --time_based --runtime="$runtime") ;;
  rand-read-all) args+=(--rw=randread --bs=4k --size=2G --time_based --runtime="$runtime") ;;
  rand-write-all) args+=(--rw=randwrite --bs=4k --size=2G --time_based --runtime="$runtime") ;;
  esac
  fio "${args[@]}" >/dev/null
  python3 - "$work/fio.json" "$1" <<'PYTHON'
import json, sys
job = json.load(open(sys.argv[1]))["jobs"][0]
side = job["read"] if job["read"]["io_bytes"] > 0 else job["write"]
if sys.argv[2].startswith("seq"):
    # Bytes over the whole run, the closing flush included.
    print("%.0f" % (side["io_bytes"] / (job["job_runtime"] / 1000.0) / 1048576))
else:
    print("%.0f" % side["iops"])
PYTHON
}

for round in $(seq 1 "$rounds"); do
  for server in "${servers[@]}"; do
    echo "== round $round: $server"
    fresh_copy "$server"
    # Making the copy leaves gigabytes to write back, which would fall on
    # the measured runs.
    sync
    sleep "$settle"
    start_server "$server"
    for run in "${runs[@]}"; do
      value=$(run_fio "$run")
      printf '%s\t%s\t%s\n' "$server" "$run" "$value" >>"$results"
      printf '   %-16s %s\n' "$run" "$value"
    done
    stop_server
    # The copy goes now, minutes before the next round needs a new one: ext4
    # without a journal passes over inodes deleted in the last minute each
    # time it creates a file, which would charge the deletion of 4096 brick
    # files to the next brick disk's measured writes.
    discard_copy "$server"
  done
done

python3 - "$results" "${servers[@]}" <<'PYTHON'
import statistics, sys
rows = [line.rstrip("\n").split("\t") for line in open(sys.argv[1]) if line.strip()]
servers = sys.argv[2:]
runs = ["seq-read", "seq-write", "rand-read-256M", "rand-write-256M", "rand-read-all", "rand-write-all"]
units = ["MiB/s", "MiB/s", "IOPS", "IOPS", "IOPS", "IOPS"]
print("\n| server | " + " | ".join("%s (%s)" % (r, u) for r, u in zip(runs, units)) + " |")
print("|---" * (len(runs) + 1) + "|")
for server in servers:
    cells = []
    for run in runs:
        values = [float(v) for s, r, v in rows if s == server and r == run]
        cells.append("%.0f" % statistics.median(values) if values else "-")
    print("| %s | %s |" % (server, " | ".join(cells)))
PYTHON
