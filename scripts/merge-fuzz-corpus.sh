#!/usr/bin/env bash
# Adds to fuzz/corpus/<name> the inputs of BUILD/fuzz-new/<name> (left there by
# scripts/run-fuzzers.sh) that reach paths the corpus does not reach yet, so
# that later runs start from them. Also the way to keep the input of a fixed
# finding as a regression seed: copy it into BUILD/fuzz-new/<name> first.
# Review and commit the new files afterwards.
#
#   scripts/merge-fuzz-corpus.sh BUILD-FOLDER
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
for corpus in fuzz/corpus/*/; do
  name=$(basename "${corpus}")
  new=${build}/fuzz-new/${name}
  [ -d "${new}" ] || continue
  before=$(find "${corpus}" -type f | wc -l)
  "${build}/fuzz/${name}" -merge=1 "${corpus}" "${new}" >/dev/null 2>&1
  after=$(find "${corpus}" -type f | wc -l)
  echo "${name}: $((after - before)) new inputs"
done
