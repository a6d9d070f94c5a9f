#!/usr/bin/env bash
# radosgw stopped part-way through an import into an s3:// disk: the import
# retries (--s3-attempts), then ends with an error naming the S3 service and
# the object within its retry budget instead of hanging; once radosgw runs again every
# brick of the disk reads its old or its new content, and a new import
# completes the disk.
#
#   radosgw-stopped-test.sh BRICKDISK_PROGRAM WORK_FOLDER
#
# The test runs a Ceph cluster of its own (in /tmp, on free ports), so the
# cluster that the other tests share is never disturbed. Without the Ceph
# programs it prints "SKIPPED: reason" and exits 77 (CTest's skip code).
set -euo pipefail

brickdisk=$1
work=$2/radosgw-stopped
cluster_script=$(cd "$(dirname "$0")/../.." && pwd)/scripts/ceph-test-cluster.sh

for tool in ceph-mon ceph-osd radosgw radosgw-admin curl; do
  command -v "$tool" >/dev/null || { echo "SKIPPED: $tool is not installed"; exit 77; }
done

export BRICKDISK_CEPH_DIR=/tmp/brickdisk-ceph-rgw-stopped-$$
export BRICKDISK_CEPH_STORE_BYTES=$((512 * 1024 * 1024))
rm -rf "$work"
mkdir -p "$work"
trap '"$cluster_script" stop >/dev/null 2>&1 || true' EXIT

fail() {
  echo "FAILED: $*" >&2
  for log in "$work"/*.err; do
    [ -f "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}

unset CEPH_CONF CEPH_KEYRING AWS_ENDPOINT_URL AWS_ENDPOINT_URL_S3 AWS_PROFILE
cluster_env=$("$cluster_script" start) || fail "the test's own cluster did not start"
eval "$cluster_env"
bucket=brickdisk-rgw-stopped
# radosgw wants the payload's digest even of an empty body.
curl -fsS --aws-sigv4 "aws:amz:us-east-1:s3" -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
  -H "x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855" \
  -X PUT "$AWS_ENDPOINT_URL/$bucket" >/dev/null || fail "cannot create the bucket"

brick=65536
bricks=64
size=$((brick * bricks))
disk=s3://$bucket/disk
# A lock whose holder could not remove it keeps others out for its lease, and
# every request is tried 3 times (pauses of 0.2 and 0.4 s): short ones here.
faulty=(--s3-lock-lease 2 --s3-attempts 3)
printf 'radosgw-stopped\n' >"$work/pw"
pw=(--password-file "$work/pw")
head -c "$size" /dev/urandom >"$work/old.img"
head -c "$size" /dev/urandom >"$work/new.img"

"$brickdisk" create "$disk" --size "$size" --brick-size 64K --kdf pbkdf2 "${pw[@]}" >/dev/null 2>"$work/create.err" ||
  fail "create"
"$brickdisk" import "$disk" "$work/old.img" "${pw[@]}" -q 2>"$work/import-old.err" || fail "import of the old image"

# The new image goes in through a pipe: the first half, then radosgw stops,
# then the rest.
mkfifo "$work/feed"
"$brickdisk" "${faulty[@]}" import "$disk" - "${pw[@]}" -q <"$work/feed" 2>"$work/import-new.err" &
import_pid=$!
exec 3>"$work/feed"
head -c $((size / 2)) "$work/new.img" >&3
sleep 3
"$cluster_script" stop-rgw
stopped_at=$SECONDS
tail -c +$((size / 2 + 1)) "$work/new.img" >&3 || true
exec 3>&-
status=0
wait "$import_pid" || status=$?
took=$((SECONDS - stopped_at))

[ "$status" -ne 0 ] || fail "the import succeeded while radosgw was stopped"
# Each request that fails takes under a second with its tries, each refused at
# once; the import makes a few before it ends.
[ "$took" -le 20 ] || fail "the import took $took seconds to give up"
grep -q "The S3 service did not answer." "$work/import-new.err" || fail "no clear error"
grep -q "attempts: 3" "$work/import-new.err" || fail "the request was not retried"
grep -q "s3://$bucket/disk/" "$work/import-new.err" || fail "the error does not name the object"
echo "the import gave up ${took} s after radosgw stopped: $(head -n 1 "$work/import-new.err")"

"$cluster_script" start-rgw
sleep 3 # the stopped import's lease runs out

"$brickdisk" export "$disk" "$work/exported.img" "${pw[@]}" -q 2>"$work/export.err" || fail "export after the restart"
[ "$(stat -c %s "$work/exported.img")" -eq "$size" ] || fail "the exported image has the wrong size"
old_bricks=0
new_bricks=0
for ((i = 0; i < bricks; i++)); do
  piece() { dd if="$1" bs=$brick skip=$i count=1 status=none | sha256sum; }
  got=$(piece "$work/exported.img")
  if [ "$got" = "$(piece "$work/old.img")" ]; then
    old_bricks=$((old_bricks + 1))
  elif [ "$got" = "$(piece "$work/new.img")" ]; then
    new_bricks=$((new_bricks + 1))
  else
    fail "brick $i holds neither its old nor its new content"
  fi
done
echo "after the restart: $new_bricks new bricks, $old_bricks old ones"
# The first half was stored before radosgw stopped, the second never was.
[ "$new_bricks" -gt 0 ] || fail "no brick of the first half was stored"
[ "$old_bricks" -ge $((bricks / 2)) ] || fail "bricks fed after radosgw stopped were stored"

"$brickdisk" check "$disk" --read-data "${pw[@]}" >/dev/null 2>"$work/check.err" || fail "check after the restart"
"$brickdisk" import "$disk" "$work/new.img" "${pw[@]}" -q 2>"$work/import-again.err" || fail "import after the restart"
"$brickdisk" export "$disk" "$work/exported.img" --force "${pw[@]}" -q 2>"$work/export.err" || fail "export"
cmp -s "$work/exported.img" "$work/new.img" || fail "the disk differs from the new image after a new import"
echo "PASSED"
