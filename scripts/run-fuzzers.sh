#!/usr/bin/env bash
# Runs every fuzzer of fuzz/ for a bounded time, starting from its corpus in
# fuzz/corpus/<name>, and fails on the first finding (a crash, a sanitizer
# report, a leak or a time-out of one input). The corpus in the repository is
# only read: inputs that reach new paths are kept in BUILD/fuzz-new/<name>,
# and the input of a finding is written to BUILD/fuzz-findings/. To add the
# new inputs to the repository, run scripts/merge-fuzz-corpus.sh. As many
# fuzzers run at once as the machine has cores.
#
#   scripts/run-fuzzers.sh BUILD-FOLDER [SECONDS-EACH]   (default 60)
# BUILD-FOLDER is configured with clang and -DBRICKDISK_FUZZ=ON and has the
# target brickdisk_fuzzers built.
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
seconds=${2:-60}
mkdir -p "${build}/fuzz-findings"

# run_fuzzer NAME: runs one fuzzer; on a finding shows the end of its log.
run_fuzzer() {
  local name=$1
  local fuzzer=${build}/fuzz/${name}
  mkdir -p "${build}/fuzz-new/${name}"
  # -timeout: one input taking longer than this is a finding (generous, so
  # that a busy machine does not make one). The log goes to a file and is
  # shown only when the fuzzer finds something.
  if ! "${fuzzer}" "${build}/fuzz-new/${name}" "fuzz/corpus/${name}/" \
      -max_total_time="${seconds}" -timeout=25 -rss_limit_mb=2048 \
      -artifact_prefix="${build}/fuzz-findings/${name}-" -print_final_stats=1 \
      >"${build}/fuzz-findings/${name}.log" 2>&1; then
    tail -n 60 "${build}/fuzz-findings/${name}.log" >&2
    echo "run-fuzzers: ${name} found a problem; its input is in ${build}/fuzz-findings/" >&2
    return 1
  fi
}

names=()
for corpus in fuzz/corpus/*/; do
  name=$(basename "${corpus}")
  [ -x "${build}/fuzz/${name}" ] || { echo "run-fuzzers: ${build}/fuzz/${name} is not built" >&2; exit 1; }
  names+=("${name}")
done

# As many fuzzers run at once as the machine has cores, each on one core for
# its whole time; a batch ends before the next starts, and a finding in a
# batch stops the run once that batch has ended.
batch=$(nproc)
for ((first = 0; first < ${#names[@]}; first += batch)); do
  pids=()
  for name in "${names[@]:first:batch}"; do
    echo "=== fuzz: ${name} for ${seconds} s"
    run_fuzzer "${name}" &
    pids+=($!)
  done
  failed=0
  for pid in "${pids[@]}"; do
    wait "${pid}" || failed=1
  done
  [ "${failed}" = 0 ] || exit 1
  for name in "${names[@]:first:batch}"; do
    echo "--- ${name}"
    grep -E '^(stat::number_of_executed_units|stat::new_units_added)' "${build}/fuzz-findings/${name}.log" || true
  done
done
echo "=== fuzz: no findings"
