#!/usr/bin/env bash
# radosgw stopped while an s3:// disk is served through a local cache: reads
# of cached bricks go on, writes and flushes go on into the cache; once
# radosgw runs again the uploads resume, and the store ends holding every
# byte written, nothing acknowledged lost.
#
#   serve-radosgw-stopped-test.sh BRICKDISK_PROGRAM WORK_FOLDER
#
# The test runs a Ceph cluster of its own (in /tmp, on free ports), so the
# cluster that the other tests share is never disturbed. Without the Ceph
# programs it prints "SKIPPED: reason" and exits 77 (CTest's skip code).
set -euo pipefail

brickdisk=$1
work=$2/serve-radosgw-stopped
cluster_script=$(cd "$(dirname "$0")/../.." && pwd)/scripts/ceph-test-cluster.sh

for tool in ceph-mon ceph-osd radosgw radosgw-admin curl nbdkit nbdcopy; do
  command -v "$tool" >/dev/null || { echo "SKIPPED: $tool is not installed"; exit 77; }
done

export BRICKDISK_CEPH_DIR=/tmp/brickdisk-ceph-serve-rgw-stopped-$$
export BRICKDISK_CEPH_STORE_BYTES=$((512 * 1024 * 1024))
rm -rf "$work"
mkdir -p "$work"
serve_pid=
stop_all() {
  [ -z "$serve_pid" ] || { kill "$serve_pid" 2>/dev/null; wait "$serve_pid" 2>/dev/null; }
  "$cluster_script" stop >/dev/null 2>&1 || true
}
trap stop_all EXIT

fail() {
  echo "FAILED: $*" >&2
  for log in "$work"/*.log; do
    [ -f "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}

unset CEPH_CONF CEPH_KEYRING AWS_ENDPOINT_URL AWS_ENDPOINT_URL_S3 AWS_PROFILE
cluster_env=$("$cluster_script" start) || fail "the test's own cluster did not start"
eval "$cluster_env"
bucket=brickdisk-serve-rgw-stopped
# radosgw wants the payload's digest even of an empty body.
curl -fsS --aws-sigv4 "aws:amz:us-east-1:s3" -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
  -H "x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855" \
  -X PUT "$AWS_ENDPOINT_URL/$bucket" >/dev/null || fail "cannot create the bucket"

size=$((8 * 1024 * 1024))
disk=s3://$bucket/disk
settings=(--s3-lock-lease 5)
export XDG_RUNTIME_DIR=$work/run
mkdir -p "$XDG_RUNTIME_DIR"
socket=$work/nbd.sock
uri="nbd+unix:///?socket=$socket"
head -c "$size" /dev/urandom >"$work/old.img"
head -c "$size" /dev/urandom >"$work/new.img"

"$brickdisk" "${settings[@]}" create "$disk" --size "$size" --brick-size 64K --no-encryption >/dev/null ||
  fail "create"
"$brickdisk" "${settings[@]}" serve "$disk" --socket "$socket" --cache-dir "$work/cache" --cache-size 64M \
  >"$work/serve.log" 2>&1 &
serve_pid=$!
for _ in $(seq 1 600); do
  grep -q '^Serving' "$work/serve.log" && break
  kill -0 "$serve_pid" 2>/dev/null || fail "serve ended: $(cat "$work/serve.log")"
  sleep 0.05
done
grep -q '^Serving' "$work/serve.log" || fail "serve did not start"

nbdcopy --flush "$work/old.img" "$uri" || fail "writing the old image"
"$cluster_script" stop-rgw

nbdcopy "$uri" "$work/read-old.img" || fail "reading cached bricks while radosgw is stopped"
cmp -s "$work/old.img" "$work/read-old.img" || fail "cached bricks read other bytes while radosgw is stopped"
nbdcopy --flush "$work/new.img" "$uri" || fail "writing and flushing into the cache while radosgw is stopped"
nbdcopy "$uri" "$work/read-new.img" || fail "reading back while radosgw is stopped"
cmp -s "$work/new.img" "$work/read-new.img" || fail "the served disk lost writes while radosgw is stopped"
sleep 3 # uploads fail meanwhile and are tried again
# The cache journals each brick whose change the store does not hold yet.
dirty=$(find "$work/cache/journal" -name '*.rec' | wc -l)
[ "$dirty" -gt 0 ] || fail "no brick waits for its upload while radosgw is stopped"
echo "while radosgw was stopped: $dirty bricks waited in the cache for their upload"

"$cluster_script" start-rgw
kill -INT "$serve_pid"
wait "$serve_pid" || fail "serve did not end cleanly after radosgw came back: $(cat "$work/serve.log")"
serve_pid=

"$brickdisk" "${settings[@]}" export "$disk" "$work/exported.img" -q 2>"$work/export.log" || fail "export"
cmp -s "$work/new.img" "$work/exported.img" || fail "the store lacks writes acknowledged while radosgw was stopped"
"$brickdisk" "${settings[@]}" check "$disk" --read-data >"$work/check.log" 2>&1 || fail "check of the disk"
echo "PASSED"
