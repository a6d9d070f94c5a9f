#!/usr/bin/env bash
# Fails when a C++ source of the project does not follow .clang-format, and
# names the files that differ. Run from anywhere; apply the layout with
#   clang-format -i $(git ls-files '*.h' '*.cpp')
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -d .git ] || git rev-parse --git-dir >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.h' '*.cpp' | grep -v '^fuzz/corpus/')
else
  mapfile -t files < <(find foundation brick tools plugins tests bench fuzz examples \
    \( -name '*.h' -o -name '*.cpp' \) -not -path 'fuzz/corpus/*' | sort)
fi

differing=()
for file in "${files[@]}"; do
  if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then
    differing+=("$file")
  fi
done

if ((${#differing[@]} > 0)); then
  echo "Not in the layout of .clang-format (${#differing[@]} files):"
  printf '  %s\n' "${differing[@]}"
  exit 1
fi
echo "All ${#files[@]} sources follow .clang-format."
