#!/usr/bin/env bash
# Puts a built tree where a host program finds it, checks what landed there,
# and builds and runs a host program against it from a copy outside the source
# tree: once through find_package(Vorlink), once through pkg-config with the
# README's own command line, beside the vorlink tool that came with it. The
# host prints the version of the headers it was compiled against, which must be
# the version of what was installed.
# Usage: install_test.sh BUILD_DIR WORK_DIR HOST_SOURCE_DIR SANITIZERS [CPACK VERSION [FRESH_BUILD_DIR]]
# Without CPACK: `cmake --install` into a scratch prefix. With it: the Debian
# packages, their split and dependencies checked, lintian run, unpacked into a
# scratch root. With FRESH_BUILD_DIR, scripts/package makes them there from
# nothing, as in a fresh clone (FRESH_BUILD_DIR best beside BUILD_DIR, where
# ccache finds the same relative paths); without it, CPACK packs BUILD_DIR.
# SANITIZERS is the build's -fsanitize list, if any: an instrumented library
# needs an instrumented host, and has no manual pages.
set -euo pipefail
build=$1 work=$2 host_src=$3 cpack=${5:-}
readme=$(dirname "$0")/../../../README.md
python=""   # set when the build has the Python module
[ -d "$build/python/vorlink" ] && python=/usr/bin/python3
flags=""
[ -n "$4" ] && flags="-fsanitize=$4"
rm -rf "$work"
mkdir -p "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }
tool_env=()

if [ -z "$cpack" ]; then
    prefix=$work/prefix
    cmake --install "$build" --prefix "$prefix" > "$work/install.log"
    lib=$(find "$prefix" -name 'libVorlink.so.*.*.*' -type f | head -1)
    [ -n "$lib" ] || fail "no libVorlink.so.*.*.* installed"
    libdir=$(dirname "$lib") version=${lib##*/libVorlink.so.}
    soname=libVorlink.so.${version%%.*}
    [ "$(readlink "$libdir/$soname")" = "$(basename "$lib")" ] || fail "$soname does not point to $lib"
    [ "$(readlink "$libdir/libVorlink.so")" = "$soname" ] || fail "libVorlink.so does not point to $soname"
    objdump -p "$lib" | grep -q "SONAME *$soname\$" || fail "soname is not $soname"
    for f in include/Vorlink/ZelkoMsgDefs.h include/Vorlink/ZelkoMsgProtoUtils.h include/Vorlink/ZelkoMsgRowList.h \
             include/Vorlink/ZelkoMsgDefs.pb.h include/Vorlink/VorlinkExport.h include/Vorlink/VorlinkVersion.h \
             include/Bytra/Types.h include/Bytra/Can.h include/Vorlink/vorlink_messages.h share/vorlink/proto/ZelkoMsgDefs.proto bin/vorlink \
             share/doc/libvorlink-dev/html/index.html share/doc/libvorlink-dev/CHANGELOG.md \
             $([ -n "$flags" ] || echo share/man/man1/vorlink.1.gz); do
        [ -e "$prefix/$f" ] || fail "$f not installed"
    done
    # Every header that is installed must compile on its own from the installed tree.
    for h in "$prefix"/include/Vorlink/*.h; do
        case $h in *.pb.h) continue ;; esac
        echo "#include \"$(basename "$h")\"" | c++ -std=c++17 -fsyntax-only -fPIC -x c++ - \
            -I"$prefix/include/Vorlink" -I"$prefix/include" $(pkg-config --cflags Qt5Core protobuf) \
            || fail "$(basename "$h") does not compile alone"
    done
else
    version=$6-1 major=${6%%.*} fresh=${7:-}
    runtime=libvorlink$major
    if [ -n "$fresh" ]; then
        rm -rf "$fresh"
        BUILD_DIR=$fresh "$(dirname "$0")/../../../scripts/package" > "$work/package.log" 2>&1 ||
            { cat "$work/package.log"; fail "scripts/package in a fresh build directory"; }
        cp "$fresh"/packages/*.deb "$fresh"/packages/*.ddeb "$work"
        rm -rf "$fresh"
    else
        "$cpack" --config "$build/CPackConfig.cmake" -B "$work" > "$work/cpack.log" 2>&1 ||
            { cat "$work/cpack.log"; fail "cpack"; }
    fi
    debs=()
    for p in $runtime libvorlink-dev vorlink-tools ${python:+python3-vorlink}; do
        deb=$(echo "$work/${p}_${version}_"*.deb)
        [ -f "$deb" ] || fail "no $p package of version $version"
        debs+=("$deb")
        dpkg-deb -x "$deb" "$work/root"
    done
    files() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ { sub(/^\.\//, "", $6); print $6 }' | grep -v '^usr/share/doc/' | sort | xargs; }
    [ "$(files "${debs[0]}")" = "usr/lib/libVorlink.so.$major usr/lib/libVorlink.so.$6" ] || fail "$runtime holds $(files "${debs[0]}")"
    man=usr/share/man/man1 tools="usr/bin/vorlink"
    [ -z "$flags" ] && tools="$tools $man/vorlink.1.gz"
    [ "$(files "${debs[2]}" | tr ' ' '\n' | grep -vx "$man/vorlink-[a-z]*\.1\.gz" | xargs)" = "$tools" ] &&
        { [ -n "$flags" ] || files "${debs[2]}" | grep -q "$man/vorlink-decode.1.gz"; } ||
        fail "vorlink-tools holds $(files "${debs[2]}")"
    dev=$(dpkg-deb -c "${debs[1]}")
    for f in vorlink/proto/ZelkoMsgDefs.proto doc/libvorlink-dev/html/index.html doc/libvorlink-dev/CHANGELOG.md; do
        grep -q " ./usr/share/$f\$" <<< "$dev" || fail "libvorlink-dev lacks /usr/share/$f"
    done
    for f in VorlinkVersion.h vorlink_messages.h; do
        grep -q " ./usr/include/Vorlink/$f\$" <<< "$dev" || fail "libvorlink-dev lacks $f"
    done
    # The library ships stripped; its debugging symbols come beside it, found by its build id.
    dbgsym=$(echo "$work/${runtime}-dbgsym_${version}_"*.ddeb)
    [ -f "$dbgsym" ] || fail "no $runtime-dbgsym package"
    dpkg-deb -x "$dbgsym" "$work/dbgsym"
    id=$(readelf -n "$work/root/usr/lib/libVorlink.so.$6" | awk '/Build ID/ { print $3 }')
    debug=$work/dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    [ -f "$debug" ] || fail "$runtime-dbgsym has no symbols for the build id $id"
    readelf -S "$work/root/usr/lib/libVorlink.so.$6" | grep -q debug_info && fail "the packaged library is not stripped"
    # (A build without -g has only its symbol table to give.)
    [ -z "$fresh" ] || readelf -S "$debug" | grep -q debug_info || fail "$debug has no debugging information"
    dpkg-deb -I "${debs[0]}" shlibs | grep -qx "libVorlink $major $runtime (>= $version)" || fail "$runtime has no shlibs entry"
    [ "$(dpkg-deb -I "${debs[0]}" symbols | sed -n 1p)" = "libVorlink.so.$major $runtime #MINVER#" ] || fail "$runtime has no symbols file"
    for deb in "${debs[@]:1}"; do
        dpkg-deb -f "$deb" Depends | grep -qF "$runtime (= $version)" || fail "$deb does not depend on $runtime"
    done
    dpkg-deb -f "${debs[2]}" Depends | grep -q 'libqt5core5a' || fail "no dependencies worked out for vorlink"
    if [ -n "$python" ]; then
        files "${debs[3]}" | tr ' ' '\n' | grep -qx 'usr/lib/python3/dist-packages/vorlink/_vorlink.cpython-.*\.so' ||
            fail "python3-vorlink holds $(files "${debs[3]}")"
        dpkg-deb -f "${debs[3]}" Depends | grep -q 'python3 (>= 3' || fail "python3-vorlink does not depend on python3"
        objdump -p "$work/root/usr/lib/python3/dist-packages/vorlink/"_vorlink*.so | grep -q 'R.*PATH' &&
            fail "the packaged Python extension keeps an RPATH"
    fi
    prefix=$work/root/usr libdir=$work/root/usr/lib
    installed=$(dpkg-deb -f "${debs[1]}" Version)
    objdump -p "$prefix/bin/vorlink" | grep -q 'R.*PATH' && fail "the packaged vorlink keeps an RPATH"
    tool_env=(env LD_LIBRARY_PATH="$libdir")
    # A sanitizer build is never shipped; lintian judges the real ones.
    if [ -z "$flags" ]; then
        lint=$(lintian --fail-on error "${debs[@]}" 2>&1) || { echo "$lint"; fail "lintian reports errors"; }
        grep -v 'root privileges' <<< "$lint" || true
    fi
fi
[ -e "$libdir/cmake/Vorlink/VorlinkConfig.cmake" ] || fail "no CMake package"
[ -e "$libdir/pkgconfig/vorlink.pc" ] || fail "no pkg-config file"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# The version a host is compiled against is the package's: the Debian version
# without its revision, or that of the pkg-config file and the library's name.
if [ -z "$cpack" ]; then
    [ "$(pkg-config --modversion vorlink)" = "$version" ] || fail "vorlink.pc says $(pkg-config --modversion vorlink), the library $version"
    installed=$version
fi
installed=${installed%-*}

# The host sources are copied out, so nothing of the source tree is in reach.
cp -r "$host_src" "$work/host"
expected="0a120a0b0880e2cfaa0610c0a9d33a10071880021002180120""3c2805 02000000010000003c0000000500 zelko.messages.AlarmStatusData 14 $installed $installed $(printf '%02x%02x%02x' ${installed//./ })"

cmake -S "$work/host" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > "$work/host-configure.log"
cmake --build "$work/host-build" > "$work/host-build.log"
got=$("$work/host-build/host")
[ "$got" = "$expected" ] || fail "CMake host printed '$got'"

# Node firmware: C99 through Vorlink::Firmware, where Qt and protobuf cannot be found.
cp -r "$(dirname "$host_src")/firmware-host" "$work/firmware-host"
cmake -S "$work/firmware-host" -B "$work/firmware-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_DISABLE_FIND_PACKAGE_Qt5=ON -DCMAKE_DISABLE_FIND_PACKAGE_Protobuf=ON > "$work/firmware-configure.log" ||
    { cat "$work/firmware-configure.log"; fail "Vorlink::Firmware not found without Qt and protobuf"; }
cmake --build "$work/firmware-build" > "$work/firmware-build.log" || { cat "$work/firmware-build.log"; fail "firmware build"; }
got=$("$work/firmware-build/firmware-host")
[ "$got" = "02000000010000003c0000000500 AlarmStatusData 14" ] || fail "firmware host printed '$got'"


# The README's line, as a user types it (an instrumented build adds its sanitizers).
line=$(grep -m1 '^g++ host.cpp .*pkg-config --cflags --libs vorlink' "$readme") || fail "README.md has no g++ line with pkg-config"
(cd "$work/host" && eval "$line $flags") || fail "'$line' fails"
got=$(LD_LIBRARY_PATH=$libdir "$work/host/host")
[ "$got" = "$expected" ] || fail "pkg-config host printed '$got'"
# The README's complete host, built with that line, prints what the README shows:
# its own lines on standard output, the library's, with their category, on standard error.
mkdir "$work/readme-host"
awk 'prev == "```cpp" && /^\/\/ host.cpp:/ { on = 1 } on && /^```$/ { exit } on { print } { prev = $0 }' "$readme" \
    > "$work/readme-host/host.cpp"
grep -q 'int main' "$work/readme-host/host.cpp" || fail "README.md has no complete host (a cpp block starting '// host.cpp:')"
(cd "$work/readme-host" && eval "$line $flags") || fail "'$line' fails on the README's host"
shown=$(sed -n '/^\$ \.\/host$/,/^```$/p' "$readme" | sed '1d;$d')
(cd "$work/readme-host" && LD_LIBRARY_PATH=$libdir ./host > out 2> err) || fail "the README's host fails"
[ "$(cat "$work/readme-host/out")" = "$(grep -v '^\[' <<< "$shown")" ] || fail "the README's host printed $(cat "$work/readme-host/out")"
[ "$(cat "$work/readme-host/err")" = "$(grep '^\[' <<< "$shown")" ] || fail "the README's host logged $(cat "$work/readme-host/err")"

# The tool that came with the library writes the host's protobuf bytes for the
# same message, behind their varint length.
proto=${expected%% *}
tool=$(echo "1700000000.123 7 0x0100 02000000010000003c0000000500" |
    "${tool_env[@]}" "$prefix/bin/vorlink" decode --format binary | od -An -tx1 -v | tr -d ' \n')
[ "$tool" = "$(printf '%02x' $((${#proto} / 2)))$proto" ] || fail "$prefix/bin/vorlink wrote $tool"
# The Python package, from where the install put it, without the build tree.
if [ -n "$python" ]; then
    init=$(find "$prefix" -path '*/dist-packages/vorlink/__init__.py' | head -1)
    [ -n "$init" ] || fail "no Python package vorlink installed"
    for f in __init__.pyi records.pyi py.typed records.py; do
        [ -e "$(dirname "$init")/$f" ] || fail "the Python package lacks $f"
    done
    got=$(cd "$work" && PYTHONPATH=$(dirname "$(dirname "$init")") "${tool_env[@]}" "$python" -c "
import vorlink
assert vorlink.__file__.startswith('$work'), vorlink.__file__
print(vorlink.to_protobuf(0x0100, bytes.fromhex('02000000010000003c0000000500'), time=1700000000.123, sequence=7).hex())")
    [ "$got" = "$proto" ] || fail "the installed Python module wrote '$got'"
fi
echo "library, headers, firmware header, schema, CMake package, pkg-config, tool${python:+ and Python module} all work${cpack:+, from the Debian packages}"
