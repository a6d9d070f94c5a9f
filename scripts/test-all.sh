#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three
# times: a normal build (whose installation is then checked as a user's
# program meets it), an AddressSanitizer + UndefinedBehaviorSanitizer build,
# and the concurrency tests under ThreadSanitizer; last it runs every fuzzer
# for BRICKDISK_FUZZ_SECONDS (60) each. The tests labelled ceph and s3 run
# against a throwaway Ceph cluster (and its radosgw) started here and stopped
# at the end. Stops at the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)

# The Ceph test cluster (its environment names the cluster and the pool).
eval "$(scripts/ceph-test-cluster.sh start)"
trap 'scripts/ceph-test-cluster.sh stop >/dev/null' EXIT

# build_and_test NAME LABEL TARGET CMAKE-ARGS...: configures build/NAME, builds
# TARGET (everything when empty) and runs its tests (only those with LABEL
# when one is given).
build_and_test() {
  local name=$1 label=$2 target=$3
  shift 3
  echo "=== ${name}: configure and build"
  cmake -S . -B "build/${name}" -G Ninja -DBRICKDISK_WERROR=ON "$@" >/dev/null
  local targets=()
  if [ -n "${target}" ]; then
    targets=(--target "${target}")
  fi
  cmake --build "build/${name}" -j "${jobs}" "${targets[@]}"
  echo "=== ${name}: test"
  local filter=()
  if [ -n "${label}" ]; then
    filter=(-L "${label}")
  fi
  (cd "build/${name}" && ctest --output-on-failure --timeout 600 -j "${jobs}" "${filter[@]}")
}

build_and_test normal "" "" -DCMAKE_BUILD_TYPE=RelWithDebInfo
scripts/check-install.sh build/normal

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
build_and_test asan "" "" -DCMAKE_BUILD_TYPE=Debug -DBRICKDISK_SANITIZE=address,undefined -DBRICKDISK_BUILD_EXAMPLES=OFF

export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
build_and_test tsan concurrency brickdisk_concurrency_tests -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRICKDISK_SANITIZE=thread -DBRICKDISK_BUILD_EXAMPLES=OFF

echo "=== fuzz: configure and build"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DBRICKDISK_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRICKDISK_FUZZ=ON -DBRICKDISK_RADOS=OFF -DBRICKDISK_BUILD_TESTS=OFF -DBRICKDISK_BUILD_TOOLS=OFF -DBRICKDISK_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/fuzz -j "${jobs}" --target brickdisk_fuzzers
scripts/run-fuzzers.sh build/fuzz "${BRICKDISK_FUZZ_SECONDS:-60}"

echo "=== all test runs passed"
