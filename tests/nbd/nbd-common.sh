# What the NBD test scripts share: ending a case as failed (with the tails
# of its logs) or skipped, and asking for the tools a case needs. Sourced by
# nbd-test.sh and nbd-store-test.sh after they set $work.

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
