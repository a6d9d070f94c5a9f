#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and checks the installation as
# a user of the library meets it: the examples and a small find_package
# program build and run against it, a pkg-config build of the same program
# runs, no internal header is installed and no internal helper is exported.
#
#   scripts/check-install.sh BUILD-FOLDER     (a folder that `cmake --build` built)
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT
prefix=${work}/prefix

cmake --install "${build}" --prefix "${prefix}" >/dev/null
libdir=$(dirname "$(find "${prefix}" -name 'libbrickdisk.so' | head -n 1)")

fail() {
  echo "check-install: $*" >&2
  exit 1
}

if [ -n "$(find "${prefix}/include" -path '*/detail/*' -print -quit)" ]; then
  fail "internal headers were installed: $(find "${prefix}/include" -path '*/detail/*' | tr '\n' ' ')"
fi
# Helpers that stay inside the library; the exported interface must not name them.
exported=$(nm -D --defined-only -C "${libdir}/libbrickdisk.so")
for internal in 'zo::makeTemporaryFileName' 'zo::CLocalFileStream' 'seal::detail::CAES256CBCCipher'; do
  if grep -qF "${internal}" <<<"${exported}"; then
    fail "the library exports ${internal}"
  fi
done

echo "=== install: examples and a find_package program against ${prefix}"
cmake -S examples -B "${work}/examples" -G Ninja -DCMAKE_PREFIX_PATH="${prefix}" >/dev/null
cmake --build "${work}/examples" >/dev/null
"${work}/examples/store_and_read" "${work}"
cmake -S tests/install -B "${work}/consumer" -G Ninja -DCMAKE_PREFIX_PATH="${prefix}" >/dev/null
cmake --build "${work}/consumer" >/dev/null
"${work}/consumer/brickdisk_consumer"

echo "=== install: the same program built with pkg-config"
read -r -a flags <<<"$(PKG_CONFIG_PATH="${libdir}/pkgconfig" pkg-config --cflags --libs brickdisk)"
c++ tests/install/consumer.cpp -o "${work}/consumer-pkg-config" "${flags[@]}"
LD_LIBRARY_PATH="${libdir}" "${work}/consumer-pkg-config"
