# Timing and figure helpers of the comparison benchmarks, sourced by them.
# The caller sets $work, the folder that receives each step's output.

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
# same IMAGE FILE: FILE equals IMAGE; then FILE is removed.
same() {
  cmp "$1" "$2"
  rm -f "$2"
}
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
mbps() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.0f", b / 1e6 / s }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
at_least() { awk -v r="$1" -v goal="$2" 'BEGIN { print (r >= goal ? "yes" : "no") }'; }
