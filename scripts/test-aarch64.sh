#!/usr/bin/env bash
# The camera's side of the suite.
#   scripts/test-aarch64.sh                  cross-builds the library, its tools, examples and tests for
#                                            aarch64 in build-aarch64/, runs the whole suite under
#                                            qemu-user, and compares the files the stamping tool writes there
#                                            byte for byte with those of an x86-64 build
#   scripts/test-aarch64.sh --unsigned-char  the host suite once more with plain char unsigned, as on the
#                                            camera (build-aarch64-uchar/), and the same byte comparison
# The x86-64 reference for the comparison is built in build-aarch64-native/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
mode=${1:-cross}
case $mode in
cross) quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_test_packages[@]}" \
           "${quillane_cross_packages[@]}" ;;
--unsigned-char) quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_test_packages[@]}" ;;
*) echo "usage: $0 [--unsigned-char]" >&2; exit 2 ;;
esac

step_start=$SECONDS
step() {
    echo "--- $* (at $((SECONDS - step_start)) s)"
}

# Runs the suite in $1 and prints how many tests ran and which were skipped, with why.
run_suite() {
    local build=$1 label=$2 log
    log=$(mktemp)
    local status=0
    ctest --test-dir "$build" --output-on-failure -j2 | tee "$log" || status=$?
    local total skipped
    total=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1/p' "$log" | tail -1)
    skipped=$(grep -c '(Skipped)$' "$log" || true)
    echo "$label: ${total:-0} tests, $((${total:-0} - skipped)) run, $skipped skipped"
    if [ "$skipped" -gt 0 ]; then
        # GoogleTest prints "file:line: Skipped" and then the reason.
        awk '/^[0-9]+\/[0-9]+ Test: /{name=$0; sub(/^[0-9]+\/[0-9]+ Test: /, "", name)}
             reason {print "  skipped " name ": " $0; reason = 0}
             /: Skipped$/ {reason = 1}' "$build/Testing/Temporary/LastTest.log"
    fi
    rm -f "$log"
    return $status
}

# The x86-64 reference: only what writes the compared files.
native=$root/build-aarch64-native
build_reference() {
    step "x86-64 reference build ($native)"
    cmake -S "$root" -B "$native" -G Ninja -DQUILLANE_BUILD_GST=OFF -DQUILLANE_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$native" --target quillane-tcstamp
}

# Produces the files with both builds and compares every one of them.
compare_bytes() {
    local build=$1 label=$2
    shift 2
    local outputs=$build/byte_identity
    step "byte identity: $label against x86-64"
    sh "$root/tests/byte_identity/produce.sh" "$native" "$outputs/x86_64"
    sh "$root/tests/byte_identity/produce.sh" "$build" "$outputs/$label" "$@"
    local files bytes=0 differing=0 f
    files=$(cd "$outputs/x86_64" && find . -type f | sort)
    if [ "$files" != "$(cd "$outputs/$label" && find . -type f | sort)" ]; then
        echo "byte identity: the two builds wrote different sets of files" >&2
        diff <(echo "$files") <(cd "$outputs/$label" && find . -type f | sort) >&2 || true
        return 1
    fi
    for f in $files; do
        bytes=$((bytes + $(stat -c %s "$outputs/x86_64/$f")))
        if ! cmp "$outputs/x86_64/$f" "$outputs/$label/$f"; then
            differing=$((differing + 1))
            case $f in
            *.stdout | *.stderr | *.verify)
                diff "$outputs/x86_64/$f" "$outputs/$label/$f" | head -20 || true ;;
            esac
        fi
    done
    echo "byte identity, $label against x86-64: $(echo "$files" | wc -l) files, $bytes bytes, $differing differing"
    [ "$differing" -eq 0 ]
}

if [ "$mode" = --unsigned-char ]; then
    build=$root/build-aarch64-uchar
    step "host build with -funsigned-char ($build)"
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_FLAGS=-funsigned-char -DCMAKE_CXX_FLAGS=-funsigned-char >/dev/null
    cmake --build "$build"
    step "host suite with unsigned char"
    run_suite "$build" "x86-64 with unsigned char"
    build_reference
    compare_bytes "$build" x86_64-unsigned-char
    exit 0
fi

build=$root/build-aarch64
step "cross build for aarch64 ($build)"
cmake -S "$root" -B "$build" -G Ninja --toolchain "$root/cmake/toolchain-aarch64-linux-gnu.cmake" >/dev/null
cmake --build "$build"
emulator=$(sed -n 's/^QUILLANE_QEMU_AARCH64:FILEPATH=//p' "$build/CMakeCache.txt")
if [ -z "$emulator" ] || [ ! -x "$emulator" ]; then
    echo "qemu-aarch64 not found: install qemu-user" >&2
    exit 1
fi

# What a cross build cannot have: these need arm64 libraries that Debian
# only offers through multiarch, which this stage does not set up.
echo "left out of the aarch64 build:"
echo "  the GStreamer element quillanetcstamp and its tests: no arm64 GStreamer development files"
echo "  the time code interop tests: their reader links arm64 gstreamer-codecparsers; the aarch64"
echo "    tool's stamped streams are compared byte for byte with the x86-64 ones instead"
echo "  the benchmarks: no arm64 Google Benchmark or GLib (they are never run as tests)"

step "the whole suite under $(basename "$emulator")"
run_suite "$build" "aarch64 under $(basename "$emulator")"
build_reference
compare_bytes "$build" aarch64 "$emulator" -L /usr/aarch64-linux-gnu
