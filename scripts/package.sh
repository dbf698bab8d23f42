#!/usr/bin/env bash
# Builds the Debian packages for amd64 and arm64 (library, -dev, tools),
# installs the amd64 ones on this machine, builds a C client against them with
# find_package and with pkg-config and runs it, then removes them again; the
# arm64 packages are checked by their contents: architecture, file list,
# SONAME and the library's machine.
#   scripts/package.sh    packages end up in build-pkg/ and build-pkg-aarch64/
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_cross_packages[@]}" dpkg-dev file

# The check installs and removes the packages: never over copies a person put there.
if dpkg-query -W -f='${Status}' libquillaneutil1 2>/dev/null | grep -q 'install ok installed'; then
    echo "libquillaneutil1 is installed on this machine; remove it first (dpkg -r quillaneutil-tools" \
        "libquillaneutil-dev libquillaneutil1)" >&2
    exit 1
fi

# Builds and packages one tree; the log is shown when a step fails.
package() {
    local build=$1
    shift
    rm -rf "$build"
    mkdir -p "$build"
    local log=$build/package.log
    if ! { cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DQUILLANE_BUILD_TESTS=OFF -DQUILLANE_BUILD_EXAMPLES=OFF -DQUILLANE_BUILD_GST=OFF "$@" &&
        cmake --build "$build" && (cd "$build" && cpack); } >"$log" 2>&1; then
        cat "$log" >&2
        exit 1
    fi
}

names=(libquillaneutil1 libquillaneutil-dev quillaneutil-tools)
version=$(sed -n 's/^project(QuillaneUtil VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")

echo "=== amd64 packages"
package "$root/build-pkg"
debs=()
for name in "${names[@]}"; do debs+=("$root/build-pkg/${name}_${version}_amd64.deb"); done
ls -l "${debs[@]}"

work=$(mktemp -d)
cleanup() {
    dpkg -r quillaneutil-tools libquillaneutil-dev libquillaneutil1 >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
dpkg -i "${debs[@]}" >/dev/null
client=$root/tests/install_client
cmake -S "$client" -B "$work/client" -G Ninja >/dev/null
cmake --build "$work/client" >/dev/null
"$work/client/client"
# shellcheck disable=SC2046
cc -std=c99 -o "$work/pc_client" "$root/tests/c99_client.c" $(pkg-config --cflags --libs quillaneutil)
"$work/pc_client"
quillane-tcstamp --help >/dev/null
quillane-netinfo --help >/dev/null
echo "amd64 packages: installed, client built with find_package and pkg-config, tools run"

echo "=== arm64 packages"
cross=$root/build-pkg-aarch64
# The cross compiler has no multiarch directory of its own to report: name
# Debian's, as the amd64 build gets it.
package "$cross" --toolchain "$root/cmake/toolchain-aarch64-linux-gnu.cmake" \
    -DCMAKE_INSTALL_LIBDIR=lib/aarch64-linux-gnu
libdir=usr/lib/aarch64-linux-gnu
expect_runtime=("./$libdir/libquillaneutil.so.$version" "./$libdir/libquillaneutil.so.1")
expect_dev=("./usr/include/quillaneutil/util_function.h" "./usr/include/quillaneutil/util_net_function.h"
    "./$libdir/libquillaneutil.so" "./$libdir/pkgconfig/quillaneutil.pc"
    "./$libdir/cmake/QuillaneUtil/QuillaneUtilConfig.cmake")
expect_tools=("./usr/bin/quillane-tcstamp" "./usr/bin/quillane-netinfo")
check_contents() {
    local deb=$1
    shift
    [ "$(dpkg-deb -f "$deb" Architecture)" = arm64 ] || { echo "$deb: not arm64" >&2; exit 1; }
    local list
    list=$(dpkg-deb -c "$deb" | awk '{print $6}')
    for path in "$@"; do
        grep -qxF "$path" <<<"$list" || { echo "$deb: $path missing" >&2; exit 1; }
    done
    echo "$(basename "$deb"): arm64, $(wc -l <<<"$list") entries"
}
check_contents "$cross/libquillaneutil1_${version}_arm64.deb" "${expect_runtime[@]}"
check_contents "$cross/libquillaneutil-dev_${version}_arm64.deb" "${expect_dev[@]}"
check_contents "$cross/quillaneutil-tools_${version}_arm64.deb" "${expect_tools[@]}"
dpkg-deb -x "$cross/libquillaneutil1_${version}_arm64.deb" "$work/arm64"
lib=$work/arm64/$libdir/libquillaneutil.so.$version
readelf -h "$lib" | grep -q 'Machine:.*AArch64' || { echo "not an AArch64 library" >&2; exit 1; }
readelf -d "$lib" | grep -q 'Library soname: \[libquillaneutil.so.1\]' || { echo "SONAME missing" >&2; exit 1; }
echo "arm64 packages: contents, machine and SONAME as expected"
