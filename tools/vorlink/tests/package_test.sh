#!/usr/bin/env bash
# Makes the Debian packages of a built tree, checks how they split the files
# and what they depend on, unpacks them into a scratch root, and there builds
# the host program against libvorlink-dev (find_package and pkg-config) and
# runs it beside the unpacked vorlink.
# Usage: package_test.sh CPACK BUILD_DIR WORK_DIR HOST_SOURCE_DIR VERSION [SANITIZERS]
set -euo pipefail
cpack=$1 build=$2 work=$3 host_src=$4 version=$5-1
flags=""
[ -n "${6:-}" ] && flags="-fsanitize=$6"
rm -rf "$work"
mkdir -p "$work/root"
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cpack" --config "$build/CPackConfig.cmake" -B "$work" > "$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
debs=()
for p in libvorlink1 libvorlink-dev vorlink-tools; do
    deb=$(echo "$work/${p}_${version}_"*.deb)
    [ -f "$deb" ] || fail "no $p package of version $version"
    debs+=("$deb")
    dpkg-deb -x "$deb" "$work/root"
done
files() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ { sub(/^\.\//, "", $6); print $6 }' | grep -v '^usr/share/doc/' | sort | xargs; }
[ "$(files "${debs[0]}")" = "usr/lib/libVorlink.so.1 usr/lib/libVorlink.so.$5" ] || fail "libvorlink1 holds $(files "${debs[0]}")"
[ "$(files "${debs[2]}")" = "usr/bin/vorlink" ] || fail "vorlink-tools holds $(files "${debs[2]}")"
files "${debs[1]}" | grep -q 'usr/share/vorlink/proto/ZelkoMsgDefs.proto' || fail "libvorlink-dev lacks the schema"
dpkg-deb -I "${debs[0]}" shlibs | grep -qx "libVorlink 1 libvorlink1 (>= $version)" || fail "libvorlink1 has no shlibs entry"
for deb in "${debs[@]:1}"; do
    dpkg-deb -f "$deb" Depends | grep -qF "libvorlink1 (= $version)" || fail "$deb does not depend on libvorlink1"
done
dpkg-deb -f "${debs[2]}" Depends | grep -q 'libqt5core5a' || fail "no dependencies worked out for vorlink"
root=$work/root/usr
objdump -p "$root/bin/vorlink" | grep -q 'R.*PATH' && fail "the packaged vorlink keeps an RPATH"
# A sanitizer build is never shipped; lintian judges the real ones.
if [ -z "$flags" ]; then
    lint=$(lintian --fail-on error "${debs[@]}" 2>&1) || { echo "$lint"; fail "lintian reports errors"; }
    grep -v 'root privileges' <<< "$lint" || true
fi

cp -r "$host_src" "$work/host"
cmake -S "$work/host" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$root" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > "$work/host.log"
cmake --build "$work/host-build" >> "$work/host.log"
c++ -std=c++17 -fPIC $flags "$work/host/host.cpp" -o "$work/host-pc" -Wl,-rpath,"$root/lib" \
    $(PKG_CONFIG_PATH=$root/lib/pkgconfig pkg-config --cflags --libs vorlink)
cmake_host=$("$work/host-build/host") pc_host=$("$work/host-pc")
[ "$cmake_host" = "$pc_host" ] || fail "the CMake host printed '$cmake_host', the pkg-config host '$pc_host'"

# The host's protobuf bytes are what the packaged tool writes for the same line
# (behind the varint length).
proto=${cmake_host%% *}
tool=$(echo "1700000000.123 7 0x0100 02000000010000003c0000000500" |
    LD_LIBRARY_PATH=$root/lib "$root/bin/vorlink" decode --format binary | od -An -tx1 -v | tr -d ' \n')
[ "$tool" = "$(printf '%02x' $((${#proto} / 2)))$proto" ] || fail "vorlink wrote $tool, the host $proto"
echo "packages: split, dependencies, lintian, and a host built and run from the unpacked root all pass"
