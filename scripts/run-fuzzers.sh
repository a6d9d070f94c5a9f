#!/usr/bin/env bash
# Runs every fuzzer of fuzz/ for a bounded time, starting from its corpus in
# fuzz/corpus/<name>, and fails on the first finding (a crash, a sanitizer
# report, a leak or a time-out of one input). The corpus in the repository is
# only read: inputs that reach new paths are kept in BUILD/fuzz-new/<name>,
# and the input of a finding is written to BUILD/fuzz-findings/. To add the
# new inputs to the repository, run scripts/merge-fuzz-corpus.sh.
#
#   scripts/run-fuzzers.sh BUILD-FOLDER [SECONDS-EACH]   (default 60)
# BUILD-FOLDER is configured with clang and -DBRICKDISK_FUZZ=ON and has the
# target brickdisk_fuzzers built.
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
seconds=${2:-60}
mkdir -p "${build}/fuzz-findings"

for corpus in fuzz/corpus/*/; do
  name=$(basename "${corpus}")
  fuzzer=${build}/fuzz/${name}
  [ -x "${fuzzer}" ] || { echo "run-fuzzers: ${fuzzer} is not built" >&2; exit 1; }
  mkdir -p "${build}/fuzz-new/${name}"
  echo "=== fuzz: ${name} for ${seconds} s"
  # -timeout: one input taking longer than this is a finding (generous, so
  # that a busy machine does not make one). The log goes to
  # a file and is shown only when the fuzzer finds something.
  if ! "${fuzzer}" "${build}/fuzz-new/${name}" "${corpus}" \
      -max_total_time="${seconds}" -timeout=25 -rss_limit_mb=2048 \
      -artifact_prefix="${build}/fuzz-findings/${name}-" -print_final_stats=1 \
      >"${build}/fuzz-findings/${name}.log" 2>&1; then
    tail -n 60 "${build}/fuzz-findings/${name}.log" >&2
    echo "run-fuzzers: ${name} found a problem; its input is in ${build}/fuzz-findings/" >&2
    exit 1
  fi
  grep -E '^(stat::number_of_executed_units|stat::new_units_added)' "${build}/fuzz-findings/${name}.log" || true
done
echo "=== fuzz: no findings"
