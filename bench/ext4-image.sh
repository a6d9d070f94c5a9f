#!/usr/bin/env bash
# Realistic disk images for the main job and the comparison benchmark: ext4
# file systems built with mkfs.ext4 -d (no root needed) from a copy of the
# system's own files (documentation, headers, libraries).
#
#   bench/ext4-image.sh make IMAGE IMAGE_SIZE DATA_BYTES
#       IMAGE becomes an ext4 file system of IMAGE_SIZE (mkfs suffixes, e.g.
#       2G) holding about DATA_BYTES bytes of files; the rest is free space.
#       IMAGE.files lists the files it holds.
#   bench/ext4-image.sh change IMAGE NEW_IMAGE CHANGE_BYTES
#       NEW_IMAGE becomes a copy of IMAGE in which files of about CHANGE_BYTES
#       bytes in total were replaced by changed versions (written with
#       debugfs, so the rest of the image stays as it was).
set -euo pipefail

sources=(/usr/share/doc /usr/include /usr/share /usr/lib/x86_64-linux-gnu /usr/lib /usr/bin /usr/sbin)

# list_files BUDGET: regular, readable files of the sources, in a fixed order,
# until their sizes add up to BUDGET bytes. One path a line.
list_files() {
  local budget=$1
  find "${sources[@]}" -xdev -type f -readable -size -64M -printf '%s %p\n' 2>/dev/null |
    LC_ALL=C sort -k2 |
    awk -v budget="$budget" '
      { size = $1; path = substr($0, length($1) + 2) }
      seen[path]++ { next }
      total + size > budget { next }
      { total += size; print path }'
}

make_image() {
  local image=$1 size=$2 budget=$3
  local tree
  tree=$(mktemp -d "${TMPDIR:-/var/tmp}/brickdisk-tree.XXXXXX")
  # shellcheck disable=SC2064
  trap "rm -rf '$tree'" RETURN
  list_files "$budget" >"$image.files"
  tar -cf - --no-recursion -P -T "$image.files" 2>/dev/null | tar -xf - -C "$tree" 2>/dev/null || true
  rm -f "$image"
  mkfs.ext4 -q -F -b 4096 -L brickdisk-data -U 6f1c0f6a-5b1e-4a35-9d3e-2b7f3c1d0e11 \
    -E root_owner=0:0 -d "$tree" "$image" "$size" >/dev/null
}

# The files of an image are those listed in IMAGE.files by make_image, copied
# from the system; a changed file is the system's copy with one byte of every
# 4 KiB block flipped, so that every block of it differs.
change_image() {
  local image=$1 changed=$2 budget=$3
  local work
  work=$(mktemp -d "${TMPDIR:-/var/tmp}/brickdisk-change.XXXXXX")
  # shellcheck disable=SC2064
  trap "rm -rf '$work'" RETURN
  cp --sparse=always "$image" "$changed"
  # Every seventh file of 64 KiB or more, until the budget is spent.
  local total=0 eligible=0 n=0
  : >"$work/commands"
  while IFS= read -r path; do
    local size
    size=$(stat -c %s "$path" 2>/dev/null || echo 0)
    ((size >= 65536)) || continue
    eligible=$((eligible + 1))
    ((eligible % 7 == 0)) || continue
    ((total + size <= budget)) || continue
    total=$((total + size))
    n=$((n + 1))
    perl -e '
      local $/; open(my $in, "<:raw", $ARGV[0]) or die; my $data = <$in>;
      for (my $at = 0; $at < length($data); $at += 4096) { substr($data, $at, 1) ^= "\xA5"; }
      open(my $out, ">:raw", $ARGV[1]) or die; print $out $data;
    ' "$path" "$work/$n"
    printf 'rm "%s"\nwrite "%s" "%s"\n' "$path" "$work/$n" "$path" >>"$work/commands"
  done <"$image.files"
  debugfs -w -f "$work/commands" "$changed" >/dev/null 2>&1
  cp "$image.files" "$changed.files"
  echo "changed $n files ($total bytes) in $changed"
}

case "${1:-}" in
  make) shift; make_image "$@" ;;
  change) shift; change_image "$@" ;;
  *) echo "usage: $0 make IMAGE IMAGE_SIZE DATA_BYTES | change IMAGE NEW_IMAGE CHANGE_BYTES" >&2; exit 2 ;;
esac
