#!/usr/bin/env bash
# Installs a built tree into a scratch prefix, checks what landed there, and
# builds and runs a host program against it from a copy outside the source
# tree: once through find_package(Vorlink), once through pkg-config.
# Usage: install_test.sh BUILD_DIR WORK_DIR HOST_SOURCE_DIR [SANITIZERS]
# SANITIZERS is the build's -fsanitize list, if any: an instrumented library
# needs an instrumented host.
set -euo pipefail
build=$1 work=$2 host_src=$3
flags=""
[ -n "${4:-}" ] && flags="-fsanitize=$4"
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"

fail() { echo "FAIL: $*" >&2; exit 1; }
lib=$(find "$prefix" -name 'libVorlink.so.1.*' -type f | head -1)
[ -n "$lib" ] || fail "no libVorlink.so.1.* installed"
libdir=$(dirname "$lib")
[ "$(readlink "$libdir/libVorlink.so.1")" = "$(basename "$lib")" ] || fail "libVorlink.so.1 does not point to $lib"
[ "$(readlink "$libdir/libVorlink.so")" = "libVorlink.so.1" ] || fail "libVorlink.so does not point to libVorlink.so.1"
objdump -p "$lib" | grep -q 'SONAME *libVorlink.so.1$' || fail "soname is not libVorlink.so.1"
for f in include/Vorlink/ZelkoMsgDefs.h include/Vorlink/ZelkoMsgProtoUtils.h include/Vorlink/ZelkoMsgRowList.h \
         include/Vorlink/ZelkoMsgDefs.pb.h include/Vorlink/VorlinkExport.h include/Bytra/Types.h include/Bytra/Can.h \
         share/vorlink/proto/ZelkoMsgDefs.proto bin/vorlink; do
    [ -e "$prefix/$f" ] || fail "$f not installed"
done
[ -e "$libdir/cmake/Vorlink/VorlinkConfig.cmake" ] || fail "no CMake package"
[ -e "$libdir/pkgconfig/vorlink.pc" ] || fail "no pkg-config file"

# Every header that is installed must compile on its own from the installed tree.
for h in "$prefix"/include/Vorlink/*.h; do
    case $h in *.pb.h) continue ;; esac
    echo "#include \"$(basename "$h")\"" | c++ -std=c++17 -fsyntax-only -fPIC -x c++ - \
        -I"$prefix/include/Vorlink" -I"$prefix/include" $(pkg-config --cflags Qt5Core protobuf) \
        || fail "$(basename "$h") does not compile alone"
done

# The host sources are copied out, so nothing of the source tree is in reach.
cp -r "$host_src" "$work/host"
expected="0a120a0b0880e2cfaa0610c0a9d33a10071880021002180120""3c2805 02000000010000003c0000000500 zelko.messages.AlarmStatusData 14"

cmake -S "$work/host" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > "$work/host-configure.log"
cmake --build "$work/host-build" > "$work/host-build.log"
got=$("$work/host-build/host")
[ "$got" = "$expected" ] || fail "CMake host printed '$got'"

export PKG_CONFIG_PATH=$libdir/pkgconfig
c++ -std=c++17 -fPIC $flags "$work/host/host.cpp" -o "$work/host-pc" $(pkg-config --cflags --libs vorlink) \
    -Wl,-rpath,"$libdir"
got=$("$work/host-pc")
[ "$got" = "$expected" ] || fail "pkg-config host printed '$got'"

# The installed tool finds the installed library next to it.
"$prefix/bin/vorlink" list 0x0100 | grep -q alarmsFlags || fail "installed vorlink does not run"
echo "installed package: library, headers, schema, CMake package and pkg-config all work"
