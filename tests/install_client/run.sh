#!/bin/sh
# run.sh BUILD_DIR [TOOLCHAIN_FILE C_COMPILER RUNNER...] (a cross build adds the emulator as RUNNER)
# Installs into a scratch prefix, starts the installed tools with no library
# path (their run path finds the library), and builds the C client against the
# prefix with find_package and with pkg-config.
set -eu
build_dir=$1
shift
toolchain=
cc=cc
if [ $# -ge 2 ]; then
    toolchain=$1
    cc=$2
    shift 2
fi
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
for tool in "$work"/prefix/bin/quillane-*; do
    [ -e "$tool" ] || continue
    env -u LD_LIBRARY_PATH "$@" "$tool" --help >/dev/null || { echo "installed $tool does not start" >&2; exit 1; }
done
if [ -n "$toolchain" ]; then
    # The scratch prefix is one more root the cross build may search.
    cmake -S "$src_dir" -B "$work/client" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
        --toolchain "$toolchain" -DCMAKE_FIND_ROOT_PATH="$work/prefix" >/dev/null
else
    cmake -S "$src_dir" -B "$work/client" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
fi
cmake --build "$work/client" >/dev/null
"$@" "$work/client/client"
pc_dir=$(dirname "$(find "$work/prefix" -name quillaneutil.pc)")
PKG_CONFIG_PATH=$pc_dir
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
"$cc" -std=c99 -o "$work/pc_client" "$src_dir/../c99_client.c" $(pkg-config --cflags --libs quillaneutil)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir quillaneutil) "$@" "$work/pc_client"
echo "install ok"
