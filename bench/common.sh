# Helpers of the comparison benchmarks, sourced by them from the
# repository's root: installing their tools, the S3 cluster and its buckets,
# finding the brickdisk program, their work folder, timing and figures.

# install_packages PACKAGE...: installs Debian packages (with sudo when not
# root).
install_packages() {
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$@" >/dev/null
}

# install_missing "TOOL..." PACKAGE...: installs the packages when any of
# the tools is not on the PATH.
install_missing() {
  local tool missing=0
  for tool in $1; do
    command -v "$tool" >/dev/null || missing=1
  done
  shift
  [ "$missing" = 0 ] || install_packages "$@"
}

# start_s3_cluster NAME STORE_BYTES: starts a cluster of the benchmark's own
# with radosgw (scripts/ceph-test-cluster.sh) in /tmp/NAME, keeping up to
# STORE_BYTES of objects in memory, and exports its S3 endpoint and keys;
# stop_s3_cluster stops it. Run from the repository's root.
start_s3_cluster() {
  export BRICKDISK_CEPH_DIR=/tmp/$1
  export BRICKDISK_CEPH_STORE_BYTES=$2
  eval "$(scripts/ceph-test-cluster.sh start)"
  s3=(--aws-sigv4 "aws:amz:us-east-1:s3" -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY")
}
stop_s3_cluster() { "$repo_root/scripts/ceph-test-cluster.sh" stop >/dev/null; }

# radosgw wants the payload's digest even of an empty body.
empty_sha256=e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855
# make_bucket BUCKET, remove_bucket BUCKET (with its objects) on the
# cluster's S3 endpoint.
make_bucket() { curl -fsS "${s3[@]}" -H "x-amz-content-sha256: $empty_sha256" -X PUT "$AWS_ENDPOINT_URL/$1" >/dev/null; }
remove_bucket() { radosgw-admin bucket rm --bucket="$1" --purge-objects >/dev/null 2>&1; }
# bucket_bytes BUCKET: the bytes of the bucket's objects.
bucket_bytes() {
  radosgw-admin bucket stats --bucket="$1" 2>/dev/null |
    python3 -c 'import json, sys; print(sum(u["size"] for u in json.load(sys.stdin)["usage"].values()))'
}

# find_brickdisk: sets $brickdisk to BRICKDISK_BENCH_PROGRAM, a program
# already built, or else to a Release build made here.
find_brickdisk() {
  brickdisk=${BRICKDISK_BENCH_PROGRAM:-}
  if [ -n "$brickdisk" ]; then
    # The scripts change folder; a relative path must still name the program.
    brickdisk=$(realpath "$brickdisk")
  else
    cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF \
      -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build/release -j "$(nproc)" --target brickdisk_cli
    brickdisk=$PWD/build/release/tools/brickdisk
  fi
}

# make_work_folder NAME [FOLDER]: sets $work to FOLDER (made when missing,
# kept at the end) or to a fresh folder NAME.XXXXXX under ${TMPDIR:-/var/tmp},
# which remove_work_folder removes.
make_work_folder() {
  keep_work=0
  if [ $# -ge 2 ]; then
    work=$(realpath -m "$2")
    mkdir -p "$work"
    keep_work=1
  else
    work=$(mktemp -d "${TMPDIR:-/var/tmp}/$1.XXXXXX")
  fi
}
remove_work_folder() { [ "$keep_work" = 1 ] || rm -rf "$work"; }

# make_comparison_image: in the current folder, image.raw (the 2 GiB ext4
# image of the object-store comparisons, $image_bytes long) and a random
# password file, with $pw the options that give it; prints the machine's
# load first.
make_comparison_image() {
  echo "machine: $(nproc) cores; load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "making the image"
  "$repo_root/bench/ext4-image.sh" make image.raw 2G 1000000000
  image_bytes=$(stat -c %s image.raw)
  head -c 32 /dev/urandom | base64 >password
  chmod 600 password
  pw=(--password-file password)
}

declare -A took all
# timed NAME COMMAND...: runs the command after flushing earlier writes, and
# keeps the shortest wall-clock time of NAME in seconds (and every time in
# all[NAME]); its output goes to NAME.out.
timed() {
  local name=$1
  shift
  sync
  local start end seconds
  start=$(date +%s.%N)
  "$@" >"$work/$name.out" || return 1
  end=$(date +%s.%N)
  seconds=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.2f", e - s }')
  all[$name]="${all[$name]:-} $seconds"
  if [ -z "${took[$name]:-}" ] || awk -v a="$seconds" -v b="${took[$name]}" 'BEGIN { exit !(a < b) }'; then
    took[$name]=$seconds
  fi
  printf '  %-26s %8s s\n' "$name" "$seconds"
}
# median / shortest / longest of the times of NAME.
sorted_times() { tr ' ' '\n' <<<"${all[$1]}" | sed '/^$/d' | sort -n; }
median() { sorted_times "$1" | awk '{ v[NR] = $1 } END { print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
shortest() { sorted_times "$1" | head -1; }
longest() { sorted_times "$1" | tail -1; }

# wait_until_quiet: waits, up to BRICKDISK_BENCH_QUIET_WAIT seconds (1200 by
# default), until the 1-minute load average is at most 1.5, looking once a
# minute; sets $quiet to yes or no (the wait ran out) and says which.
wait_until_quiet() {
  local waited=0 limit=${BRICKDISK_BENCH_QUIET_WAIT:-1200}
  quiet=yes
  while awk -v l="$(cut -d' ' -f1 /proc/loadavg)" 'BEGIN { exit !(l > 1.5) }'; do
    if ((waited >= limit)); then
      quiet=no
      echo "the machine did not get quiet in $limit s (load average $(cut -d' ' -f1-3 /proc/loadavg)): measuring anyway"
      return 0
    fi
    echo "load average $(cut -d' ' -f1-3 /proc/loadavg): waiting for a quiet machine"
    sleep 60
    waited=$((waited + 60))
  done
}

# borg_create NAME ARCHIVE IMAGE: times borg create of IMAGE into ARCHIVE of
# $BORG_REPO (lz4 compression), as NAME.
borg_create() { timed "$1" borg create --compression lz4 "::$2" "$3"; }
# qemu_zstd_round_trip PREFIX IMAGE: times qemu-img convert of IMAGE to qcow2
# with zstd compression (PREFIX-write) and back to raw (PREFIX-read), and
# checks that the result equals IMAGE.
qemu_zstd_round_trip() {
  timed "$1-write" qemu-img convert -f raw -O qcow2 -c -o compression_type=zstd "$2" zstd.qcow2
  timed "$1-read" qemu-img convert -f qcow2 -O raw zstd.qcow2 zstd.raw
  same "$2" zstd.raw
}

# same IMAGE FILE: FILE equals IMAGE; then FILE is removed.
same() {
  cmp "$1" "$2"
  rm -f "$2"
}
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
mbps() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.0f", b / 1e6 / s }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
at_least() { awk -v r="$1" -v goal="$2" 'BEGIN { print (r >= goal ? "yes" : "no") }'; }

# print_table_head: the load after the rounds and the head of the table of
# the object-store comparisons.
print_table_head() {
  echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo
  echo "| step | seconds | MB/s of image | stored MiB |"
  echo "|---|---:|---:|---:|"
}
# print_table_row LABEL STEP [STORED_BYTES]: the row of STEP's shortest time.
print_table_row() {
  local stored=""
  [ -z "${3:-}" ] || stored=$(mib "$3")
  echo "| $1 | ${took[$2]} | $(mbps "$image_bytes" "${took[$2]}") | $stored |"
}

# s3backer_mount BUCKET FOLDER SIZE [CACHE_BLOCKS [BLOCK_SIZE [OPTION...]]]:
# mounts the bucket's s3backer file of SIZE bytes in FOLDER (made empty),
# encrypted and compressed with $work/password, blocks of BLOCK_SIZE (512K),
# a block cache of CACHE_BLOCKS blocks (200), with s3backer's further
# OPTIONs, the program running in the foreground of a job
# ($s3backer_pid); the caller unmounts it with s3backer_unmount.
s3backer_mount() {
  rm -rf "$2"
  mkdir -p "$2"
  s3backer -f --baseURL="$AWS_ENDPOINT_URL/" --accessId="$AWS_ACCESS_KEY_ID" --accessKey="$AWS_SECRET_ACCESS_KEY" \
    --authVersion=aws4 --size="$3" --blockSize="${5:-512K}" --encrypt --passwordFile="$work/password" \
    --blockCacheSize="${4:-200}" --blockCacheThreads=16 --listBlocks "${@:6}" "$1" "$2" >>"$work/s3backer.log" 2>&1 &
  s3backer_pid=$!
  mounted=$2
  until grep -q " $2 fuse" /proc/mounts; do
    kill -0 "$s3backer_pid" 2>/dev/null || { echo "s3backer did not mount" >&2; cat "$work/s3backer.log" >&2; exit 1; }
    sleep 0.1
  done
}
# s3backer_unmount FOLDER: unmounts and waits until s3backer has stored
# every block and ended.
s3backer_unmount() {
  fusermount -u "$1"
  wait "$s3backer_pid"
  mounted=
}
