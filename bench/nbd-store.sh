#!/usr/bin/env bash
# Serving a disk kept in S3, side by side with its peers, in one run on one
# radosgw (scripts/ceph-test-cluster.sh, a cluster of its own in
# /tmp/brickdisk-nbd-store-bench, stopped at the end), each in a bucket of
# its own:
#
#   brickdisk-cache   brickdisk serve of an s3:// disk (create's defaults for
#                     a store: 4 MiB bricks, AES-256-GCM, zstd-3)
#                     with a local cache folder (--cache-dir, 2 GiB) and
#                     512 MiB of decoded bricks in memory (--cache)
#   brickdisk         the same without the cache folder (memory cache only)
#   s3backer          Debian's s3backer (FUSE; its packaged version has no NBD
#                     mode) with --encrypt, which compresses too, blocks as
#                     large as the bricks, a block cache of 128 blocks (512
#                     MiB), --directIO (no kernel page cache over it, as
#                     over the NBD servers); fio's file engine
#                     on its file
#   qcow2-luks        qemu-nbd over a LUKS-encrypted qcow2 on the local file
#                     system: the local reference
#
# Runs, measured by fio (the nbd engine on the NBD servers, queue depth 16;
# on s3backer's file 16 jobs for the random reads, one for the sequential):
#   seq-write        1 GiB in 1 MiB blocks, ended by a flush (fsync)
#   seq-read-cold    the same GiB read back by a server started anew (the
#                    cache folder emptied, s3backer mounted anew)
#   rand-read-256M   4 KiB random reads over the first 256 MiB for RUNTIME
#                    seconds, after one sequential read of them (the working
#                    set fits every cache)
# and the requests radosgw served during each run (its log has a line per
# request), as requests per GiB moved.
#
#   bench/nbd-store.sh [BUILD_FOLDER] [WORK_FOLDER]
#
# BUILD_FOLDER holds brickdisk_cli and the nbdkit plugin (default: a Release
# build made here in build/release). ROUNDS (1) rounds, each in new buckets;
# the table gives the medians. RUNTIME seconds (30). Installs s3backer, fuse3,
# fio, qemu-utils and nbdkit when missing (CI does not run it). WORK_FOLDER
# (default: a fresh folder under ${TMPDIR:-/var/tmp}) needs about 4 GB.
set -euo pipefail
cd "$(dirname "$0")/.."
repo_root=$PWD
rounds=${ROUNDS:-1}
runtime=${RUNTIME:-30}
servers=(${SERVERS:-brickdisk-cache brickdisk s3backer qcow2-luks})
runs=(seq-write seq-read-cold rand-read-256M)
size=$((2 * 1024 * 1024 * 1024))

source bench/common.sh
install_missing "s3backer fusermount fio qemu-nbd nbdkit" s3backer fuse3 fio qemu-utils nbdkit
[ -e /dev/fuse ] || { echo "nbd-store: s3backer needs /dev/fuse" >&2; exit 1; }

build=${1:-}
if [ -z "$build" ]; then
  build=$repo_root/build/release
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
    -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target brickdisk_cli nbdkit_brickdisk_plugin
fi
build=$(realpath "$build")
brickdisk=$build/tools/brickdisk

start_s3_cluster brickdisk-nbd-store-bench $(((rounds * 3 + 1) * 1024 * 1024 * 1024))
rgw_log=$BRICKDISK_CEPH_DIR/log/ceph-client.rgw.gw.log
shift || true
make_work_folder brickdisk-nbd-store "$@"
mounted=
server_pid=
stop_server() {
  if [ -n "$server_pid" ]; then
    kill -INT "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=
  fi
  if [ -n "$mounted" ]; then
    s3backer_unmount "$mounted"
  fi
}
cleanup() {
  stop_server
  stop_s3_cluster
  remove_work_folder
}
trap cleanup EXIT
cd "$work"
head -c 32 /dev/urandom | base64 >password
chmod 600 password
socket=$work/nbd.sock
results=$work/results.tsv
: >"$results"
store=(--s3-endpoint "$AWS_ENDPOINT_URL")

# serve_disk DISK ARGS...: brickdisk serve in the background until it serves.
serve_disk() {
  local disk=$1
  shift
  rm -f "$socket"
  "$brickdisk" "${store[@]}" serve "$disk" --socket "$socket" --password-file password --cache 512M "$@" \
    >"$work/serve.log" 2>&1 &
  server_pid=$!
  until grep -q '^Serving' "$work/serve.log"; do
    kill -0 "$server_pid" 2>/dev/null || { echo "serve did not start" >&2; cat "$work/serve.log" >&2; exit 1; }
    sleep 0.1
  done
}

start_qemu_nbd() {
  rm -f "$socket"
  qemu-nbd -t --shared=0 -k "$socket" --object "secret,id=sec0,file=$work/password" \
    --image-opts "driver=qcow2,file.filename=$work/luks.qcow2,encrypt.key-secret=sec0" &
  server_pid=$!
  until nbdinfo --size "nbd+unix:///?socket=$socket" >/dev/null 2>&1; do
    kill -0 "$server_pid" 2>/dev/null || { echo "qemu-nbd did not start" >&2; exit 1; }
    sleep 0.1
  done
}

# start SERVER ROUND: the server's disk, made on the first call of a round
# (start_fresh), or served again (a cold start: no cache of any kind).
start() {
  case $1 in
  brickdisk-cache)
    rm -rf "$work/cache"
    serve_disk "s3://$1-$2/disk" --cache-dir "$work/cache" --cache-size 2G
    ;;
  brickdisk) serve_disk "s3://$1-$2/disk" ;;
  s3backer) s3backer_mount "$1-$2" "$work/mnt" "$size" 128 4M --directIO ;;
  qcow2-luks) start_qemu_nbd ;;
  esac
}
start_fresh() {
  case $1 in
  brickdisk*)
    make_bucket "$1-$2"
    "$brickdisk" "${store[@]}" create "s3://$1-$2/disk" --size "$size" --password-file password >/dev/null
    ;;
  s3backer) make_bucket "$1-$2" ;;
  qcow2-luks)
    rm -f luks.qcow2
    qemu-img create -q -f qcow2 --object "secret,id=sec0,file=$work/password" \
      -o encrypt.format=luks,encrypt.key-secret=sec0,encrypt.hash-alg=sha512,encrypt.iter-time=100 \
      luks.qcow2 "$size"
    ;;
  esac
  start "$1" "$2"
}

# run_fio SERVER RUN [ARGS...]: prints MiB/s for the sequential runs,
# operations per second for the random one.
run_fio() {
  local server=$1 run=$2 target
  shift 2
  if [ "$server" = s3backer ]; then
    target=(--ioengine=psync --filename="$work/mnt/file")
    [ "$run" = rand-read-256M ] && target+=(--numjobs=16 --group_reporting)
  else
    target=(--ioengine=nbd --uri="nbd+unix:///?socket=$socket" --iodepth=16)
  fi
  case $run in
  seq-write) target+=(--rw=write --bs=1M --size=1G --end_fsync=1) ;;
  seq-read-cold) target+=(--rw=read --bs=1M --size=1G) ;;
  warm-256M) target+=(--rw=read --bs=1M --size=256M) ;;
  rand-read-256M) target+=(--rw=randread --bs=4k --size=256M --time_based --runtime="$runtime") ;;
  esac
  fio --name="$run" "${target[@]}" "$@" --output-format=json --output="$work/fio.json" >/dev/null
  python3 - "$work/fio.json" "$run" <<'PYTHON'
import json, sys
jobs = json.load(open(sys.argv[1]))["jobs"]
side = "read" if jobs[0]["read"]["io_bytes"] > 0 else "write"
if sys.argv[2].startswith("seq"):
    seconds = max(job["job_runtime"] for job in jobs) / 1000.0
    print("%.0f" % (sum(job[side]["io_bytes"] for job in jobs) / seconds / 1048576))
else:
    print("%.0f" % sum(job[side]["iops"] for job in jobs))
PYTHON
}

# requests_since LINE BUCKET: radosgw's requests on BUCKET after its log's
# LINE-th line.
requests_since() { tail -n +"$(($1 + 1))" "$rgw_log" | grep -c "beast: .*\"[A-Z]* /$2[/? ]" || true; }

for round in $(seq 1 "$rounds"); do
  for server in "${servers[@]}"; do
    echo "== round $round: $server"
    bucket=$server-$round
    for run in "${runs[@]}"; do
      case $run in
      seq-write) start_fresh "$server" "$round" ;;
      *)
        stop_server
        # The qcow2 file must not be read from the page cache either.
        sync
        echo 3 >/proc/sys/vm/drop_caches 2>/dev/null || true
        start "$server" "$round"
        ;;
      esac
      [ "$run" = rand-read-256M ] && run_fio "$server" warm-256M >/dev/null
      before=$(wc -l <"$rgw_log")
      value=$(run_fio "$server" "$run")
      requests=$(requests_since "$before" "$bucket")
      # The cache's uploads go on after the flush: they count for the write.
      if [ "$run" = seq-write ]; then
        stop_server
        requests=$(requests_since "$before" "$bucket")
      fi
      printf '%s\t%s\t%s\t%s\n' "$server" "$run" "$value" "$requests" >>"$results"
      printf '   %-16s %8s   %s requests\n' "$run" "$value" "$requests"
    done
    stop_server
  done
done

python3 - "$results" "${servers[@]}" <<'PYTHON'
import statistics, sys
rows = [line.split("\t") for line in open(sys.argv[1]).read().splitlines()]
servers = sys.argv[2:]
runs = ["seq-write", "seq-read-cold", "rand-read-256M"]
gib = {"seq-write": 1.0, "seq-read-cold": 1.0, "rand-read-256M": None}
def median(server, run, column):
    values = [float(r[column]) for r in rows if r[0] == server and r[1] == run]
    return statistics.median(values) if values else None
print("| server | seq write MiB/s | seq read, cold, MiB/s | rand read 256 MiB IOPS | requests per GiB written | requests per GiB read |")
print("|---|---:|---:|---:|---:|---:|")
for server in servers:
    cells = ["%.0f" % median(server, run, 2) for run in runs]
    cells += ["%.0f" % median(server, run, 3) for run in ("seq-write", "seq-read-cold")]
    print("| %s | %s |" % (server, " | ".join(cells)))
PYTHON
