#!/usr/bin/env bash
# Builds the Debian packages from debian/ with dpkg-buildpackage: for amd64
# the library, -dev, the tools and the GStreamer element, checked with
# lintian; then installs them on this machine, builds a C client against them
# with find_package and with pkg-config, runs both tools and a pipeline
# through the installed element, purges them and checks that nothing is left
# behind. The arm64 packages are cross-built, the element against arm64
# GStreamer and GLib packages unpacked into a private tree (the machine's
# dpkg database is left alone), and checked by their contents (architecture,
# file list, SONAME, machine, Depends, stripped binaries, no run path) and
# lintian; the element is then loaded by the arm64 gst-inspect-1.0 under
# user-mode emulation.
#   scripts/package.sh    packages end up in build-pkg/ and build-pkg-aarch64/,
#                         the arm64 tree in build-pkg-aarch64-sysroot/
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_cross_packages[@]}" dpkg-dev debhelper \
    lintian file libgstreamer-plugins-base1.0-dev gstreamer1.0-tools gstreamer1.0-plugins-bad

fail() {
    echo "$*" >&2
    exit 1
}

names=(libquillaneutil1 libquillaneutil-dev quillaneutil-tools gstreamer1.0-quillane)
# The check installs and purges the packages: never over copies a person put there.
for name in "${names[@]}"; do
    if dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'installed'; then
        echo "$name is installed on this machine; remove it first (dpkg --purge ${names[*]})" >&2
        exit 1
    fi
done

version=$(sed -n 's/^project(QuillaneUtil VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
deb_version=$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)
if [ "$deb_version" != "$version" ]; then
    echo "debian/changelog is at $deb_version but CMakeLists.txt at $version: add a changelog entry" >&2
    exit 1
fi

# dpkg-buildpackage writes the packages beside the source tree: build from a
# copy of the checkout's files in OUT/src, so that they land in OUT. The log
# is shown when a step fails.
build_debs() {
    local out=$1
    shift
    rm -rf "$out"
    mkdir -p "$out/src"
    (cd "$root" && git ls-files -z --cached --others --exclude-standard |
        tar --null -T - --ignore-failed-read -cf -) | tar -C "$out/src" -xf - ||
        fail "cannot copy the checkout's files (git ls-files) to $out/src"
    if ! (cd "$out/src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" \
        dpkg-buildpackage -b -us -uc "$@") >"$out/build.log" 2>&1; then
        tail -n 60 "$out/build.log" >&2
        exit 1
    fi
}

echo "=== amd64 packages"
build=$root/build-pkg
build_debs "$build"
debs=()
for name in "${names[@]}"; do debs+=("$build/${name}_${version}_amd64.deb"); done
ls -l "${debs[@]}"
echo "lintian:"
lintian --fail-on error,warning "${debs[@]}" "$build"/*-dbgsym_"${version}"_amd64.deb || fail "lintian found errors or warnings (above)"
echo "lintian: no errors, no warnings"

work=$(mktemp -d)
cleanup() {
    dpkg --purge "${names[@]}" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
dpkg -i "${debs[@]}" >/dev/null
grep -q 'libquillaneutil\.so\.1 ' <<<"$(ldconfig -p)" || fail "the ldconfig trigger did not run: libquillaneutil.so.1 not in the cache"

client=$root/tests/install_client
cmake -S "$client" -B "$work/client" -G Ninja >/dev/null
cmake --build "$work/client" >/dev/null
"$work/client/client"
# shellcheck disable=SC2046
cc -std=c99 -o "$work/pc_client" "$root/tests/c99_client.c" $(pkg-config --cflags --libs quillaneutil)
"$work/pc_client"

for tool in quillane-tcstamp quillane-netinfo; do
    ! grep -qE 'RUNPATH|RPATH' <<<"$(readelf -d "/usr/bin/$tool")" || fail "/usr/bin/$tool carries a run path"
    [ -f "/usr/share/man/man1/$tool.1.gz" ] || fail "no manual page for $tool"
    # Every option of the usage lines and of the option list is in the manual page.
    page=$(zcat "/usr/share/man/man1/$tool.1.gz")
    options=$("$tool" --help | awk 'NR == 1, /^$/ { print; next } /^  --/ { print $1 }')
    while read -r option; do
        grep -qF -- "\\-\\-${option#--}" <<<"$page" ||
            fail "$tool: option $option missing from its manual page"
    done < <(grep -oE -- '--[a-z][a-z-]*' <<<"$options" | sort -u)
done
quillane-netinfo lo >/dev/null
quillane-tcstamp "$root/samples/sample_2997.264" "$work/tool.264" --start 01:00:00:00 2>/dev/null
[ "$(wc -c <"$work/tool.264")" -gt "$(wc -c <"$root/samples/sample_2997.264")" ] || fail "quillane-tcstamp added nothing"

# No plugin path of any kind: the element is found in the system's
# multiarch plugin directory. The registry goes to the scratch directory so
# that the caller's cache is left alone.
gst_env=(env -u GST_PLUGIN_PATH -u GST_PLUGIN_PATH_1_0 -u GST_PLUGIN_SYSTEM_PATH -u GST_PLUGIN_SYSTEM_PATH_1_0
    GST_REGISTRY="$work/registry.bin")
"${gst_env[@]}" gst-inspect-1.0 quillanetcstamp >"$work/inspect.txt" 2>&1 ||
    { cat "$work/inspect.txt" >&2; fail "gst-inspect-1.0 does not find the installed element"; }
grep -q 'License.*MIT/X11' "$work/inspect.txt" || fail "the element does not carry the project's licence"
"${gst_env[@]}" gst-launch-1.0 -q filesrc location="$root/samples/sample_2997.264" ! h264parse \
    ! quillanetcstamp source=start start-time-code=01:00:00:00 ! filesink location="$work/element.264"
# The element and the tool share their stamping, and stamping a stamped stream
# again changes nothing: the tool with the same start leaves the element's
# output as it is (and would add time codes the element had not).
quillane-tcstamp "$work/element.264" "$work/restamped.264" --start 01:00:00:00 2>/dev/null
cmp -s "$work/element.264" "$work/restamped.264" || fail "the installed element and tool stamp differently"
echo "amd64 packages: installed, client built with find_package and pkg-config, tools and element run"

installed=$(dpkg -L "${names[@]}" | sort -u)
dpkg --purge "${names[@]}" >/dev/null
left=()
while IFS= read -r path; do
    [ -e "$path" ] || [ -L "$path" ] || continue
    if [ -d "$path" ] && [ ! -L "$path" ]; then
        # Shared directories stay while other packages or files use them.
        dpkg -S "$path" >/dev/null 2>&1 && continue
        [ -n "$(ls -A "$path")" ] && continue
    fi
    left+=("$path")
done <<<"$installed"
[ ${#left[@]} -eq 0 ] || fail "left behind after purge: ${left[*]}"
! grep -q libquillaneutil <<<"$(ldconfig -p)" || fail "libquillaneutil still in the ldconfig cache after purge"
echo "amd64 packages: purged, nothing left behind"

echo "=== arm64 packages"
multiarch=aarch64-linux-gnu
libdir=usr/lib/$multiarch
# The element's arm64 build dependencies, fetched with apt-get download from
# a private apt state that knows only arm64 (its own lists, cache and an
# empty status file), so that neither the machine's apt lists nor its dpkg
# database change. root/ gets them all unpacked, for pkg-config and the
# linker; packages/NAME/ each runtime library package with its control files,
# for dpkg-shlibdeps (debian/rules says how both are used).
#  - headers, pkg-config files and development links:
arm64_dev=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libglib2.0-dev)
#  - only the pkg-config files, which pkg-config wants for the Requires.private
#    of the above (their headers would shadow the compiler's: libunwind's
#    unwind.h);
arm64_pc_only=(libpcre2-dev libffi-dev libunwind-dev libdw-dev libelf-dev zlib1g-dev liblzma-dev liborc-0.4-dev)
#  - the libraries the element links and those they need in turn, which the
#    linker must find to resolve them;
arm64_runtime=(libgstreamer1.0-0 libgstreamer-plugins-base1.0-0 libglib2.0-0 liborc-0.4-0 libunwind8 libdw1 libelf1
    libffi8 libpcre2-8-0 zlib1g liblzma5 libbz2-1.0 libzstd1)
#  - only the control files: the C and C++ runtime, which the cross toolchain
#    brings for building; their symbols files give Depends the versions a
#    native build gets (libstdc++6 (>= 11), not the cross shlibs' bare name);
arm64_control_only=(libc6 libstdc++6 libgcc-s1)
#  - gst-inspect-1.0, to load the built element under emulation.
arm64_tools=(gstreamer1.0-tools)
sysroot=$root/build-pkg-aarch64-sysroot
make_sysroot() {
    local apt_opts=(-q -o Dir::State="$sysroot/apt" -o Dir::State::Lists="$sysroot/apt/lists"
        -o Dir::State::status="$sysroot/apt/status" -o Dir::Cache="$sysroot/apt/cache"
        -o APT::Architecture=arm64 -o APT::Architectures::=arm64 -o Acquire::Languages=none
        -o APT::Sandbox::User=root)
    # The lists stay from one run to the next (apt fetches only what changed);
    # the packages are fetched anew, at the versions the archive has now.
    rm -rf "$sysroot/debs" "$sysroot/root" "$sysroot/packages"
    mkdir -p "$sysroot/apt/lists/partial" "$sysroot/apt/cache/archives/partial" "$sysroot/debs" \
        "$sysroot/root" "$sysroot/packages"
    touch "$sysroot/apt/status"
    if ! { apt-get "${apt_opts[@]}" update &&
        (cd "$sysroot/debs" && apt-get "${apt_opts[@]}" download "${arm64_dev[@]}" "${arm64_pc_only[@]}" \
            "${arm64_runtime[@]}" "${arm64_control_only[@]}" "${arm64_tools[@]}"); } >"$sysroot/apt.log" 2>&1; then
        tail -n 30 "$sysroot/apt.log" >&2
        fail "cannot fetch the arm64 GStreamer packages"
    fi
    local deb name
    for deb in "$sysroot"/debs/*.deb; do
        name=$(dpkg-deb -f "$deb" Package)
        if [[ " ${arm64_pc_only[*]} " == *" $name "* ]]; then
            dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$sysroot/root" --wildcards '*.pc'
        elif [[ " ${arm64_control_only[*]} " != *" $name "* ]]; then
            dpkg-deb -x "$deb" "$sysroot/root"
        fi
        if [[ " ${arm64_runtime[*]} ${arm64_control_only[*]} " == *" $name "* ]]; then
            dpkg-deb -R "$deb" "$sysroot/packages/$name"
        fi
    done
    # The modules the element is built with (gst/CMakeLists.txt) resolve in
    # the tree; the include directories of the headers left out exist, empty,
    # since CMake refuses imported targets naming missing ones.
    local flags flag
    flags=$(PKG_CONFIG_PATH='' PKG_CONFIG_LIBDIR="$sysroot/root/$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$sysroot/root" \
        pkg-config --cflags-only-I gstreamer-1.0 gstreamer-base-1.0 gstreamer-video-1.0) ||
        fail "pkg-config does not resolve the arm64 GStreamer modules in $sysroot/root"
    for flag in $flags; do mkdir -p "${flag#-I}"; done
}
make_sysroot
echo "arm64 GStreamer $(dpkg-deb -f "$sysroot"/debs/libgstreamer1.0-0_*.deb Version), GLib" \
    "$(dpkg-deb -f "$sysroot"/debs/libglib2.0-0_*.deb Version) unpacked in $sysroot"

cross=$root/build-pkg-aarch64
# The build dependencies are not installed for arm64 (-d): the cross
# toolchain and the tree above stand in for them.
export QUILLANE_CROSS_SYSROOT=$sysroot
build_debs "$cross" -aarm64 -Pcross -d
check_contents() {
    local deb=$1
    shift
    [ "$(dpkg-deb -f "$deb" Architecture)" = arm64 ] || fail "$deb: not arm64"
    local list
    list=$(dpkg-deb -c "$deb" | awk '{print $6}')
    for path in "$@"; do
        grep -qxF "$path" <<<"$list" || fail "$deb: $path missing"
    done
    echo "$(basename "$deb"): arm64, $(wc -l <<<"$list") entries, Depends: $(dpkg-deb -f "$deb" Depends)"
}
check_contents "$cross/libquillaneutil1_${version}_arm64.deb" "./$libdir/libquillaneutil.so.$version" \
    "./$libdir/libquillaneutil.so.1" "./usr/share/doc/libquillaneutil1/copyright"
check_contents "$cross/libquillaneutil-dev_${version}_arm64.deb" "./usr/include/quillaneutil/util_function.h" \
    "./usr/include/quillaneutil/util_net_function.h" "./$libdir/libquillaneutil.so" \
    "./$libdir/pkgconfig/quillaneutil.pc" "./$libdir/cmake/QuillaneUtil/QuillaneUtilConfig.cmake"
check_contents "$cross/quillaneutil-tools_${version}_arm64.deb" "./usr/bin/quillane-tcstamp" \
    "./usr/bin/quillane-netinfo" "./usr/share/man/man1/quillane-tcstamp.1.gz"
plugin=$libdir/gstreamer-1.0/libgstquillanetcstamp.so
check_contents "$cross/gstreamer1.0-quillane_${version}_arm64.deb" "./$plugin" \
    "./usr/share/doc/gstreamer1.0-quillane/copyright"
for name in "${names[@]}"; do
    depends=$(dpkg-deb -f "$cross/${name}_${version}_arm64.deb" Depends)
    ! grep -qE 'cross|:arm64' <<<"$depends" || fail "$name (arm64): cross toolchain names in Depends: $depends"
    dpkg-deb -x "$cross/${name}_${version}_arm64.deb" "$work/arm64"
    [ "$name" != libquillaneutil-dev ] || continue
    # Versioned and under the real package names, from the arm64 packages'
    # own symbols files, as a native build computes them.
    required=('libc6 \(>= [0-9.]+\)' 'libstdc\+\+6 \(>= [0-9.]+\)')
    [ "$name" != gstreamer1.0-quillane ] || required+=('libgstreamer1.0-0 \(>= [0-9.]+\)'
        'libgstreamer-plugins-base1.0-0 \(>= [0-9.]+\)' 'libglib2.0-0 \(>= [0-9.]+\)'
        "libquillaneutil1 \\(>= $version\\)")
    for dep in "${required[@]}"; do
        grep -qE "(^|, )$dep" <<<"$depends" || fail "$name (arm64): /$dep/ not in Depends: $depends"
    done
done
dpkg-deb -I "$cross/libquillaneutil1_${version}_arm64.deb" shlibs | grep -qx "libquillaneutil 1 libquillaneutil1 (>= $version)" ||
    fail "libquillaneutil1 (arm64): shlibs file missing or wrong"
dpkg-deb -I "$cross/libquillaneutil1_${version}_arm64.deb" triggers | grep -qx 'activate-noawait ldconfig' ||
    fail "libquillaneutil1 (arm64): no ldconfig trigger"
lib=$work/arm64/$libdir/libquillaneutil.so.$version
readelf -h "$lib" | grep -q 'Machine:.*AArch64' || fail "not an AArch64 library"
readelf -d "$lib" | grep -q 'Library soname: \[libquillaneutil.so.1\]' || fail "SONAME missing"
for elf in "$lib" "$work/arm64/usr/bin/quillane-tcstamp" "$work/arm64/usr/bin/quillane-netinfo" "$work/arm64/$plugin"; do
    readelf -h "$elf" | grep -q 'Machine:.*AArch64' || fail "$elf is not AArch64"
    file "$elf" | grep -q ', stripped' || fail "$elf is not stripped"
    ! grep -qE 'RUNPATH|RPATH' <<<"$(readelf -d "$elf")" || fail "$elf carries a run path"
done
lintian --fail-on error,warning "$cross"/*_"${version}"_arm64.deb || fail "lintian found errors or warnings in the arm64 packages (above)"
echo "arm64 packages: contents, machine, SONAME, Depends, shlibs, trigger, stripped, no run path, lintian"

# The arm64 gst-inspect-1.0 finds the element in the package's multiarch
# plugin directory and loads it with the packaged library: the emulated
# loader takes the C and C++ runtime from the cross toolchain (-L), the rest
# from the unpacked packages. No forked scanner, and a registry of its own.
qemu=(qemu-aarch64 -L "/usr/$multiarch" -U GST_PLUGIN_PATH -U GST_PLUGIN_PATH_1_0
    -E "LD_LIBRARY_PATH=$work/arm64/$libdir:$sysroot/root/$libdir:$sysroot/root/lib/$multiarch"
    -E "GST_PLUGIN_SYSTEM_PATH_1_0=$work/arm64/$libdir/gstreamer-1.0" -E GST_REGISTRY_FORK=no
    -E "GST_REGISTRY=$work/arm64-registry.bin")
"${qemu[@]}" "$sysroot/root/usr/bin/gst-inspect-1.0" quillanetcstamp >"$work/arm64-inspect.txt" 2>&1 ||
    { cat "$work/arm64-inspect.txt" >&2; fail "the arm64 gst-inspect-1.0 does not load the arm64 element"; }
grep -q "Version *$version" "$work/arm64-inspect.txt" || fail "the arm64 element reports no version $version"
echo "arm64 element: loaded by the arm64 gst-inspect-1.0 under emulation"
