#!/bin/sh
# Installs the build tree into a scratch prefix and builds the C client
# against it twice: with find_package and with pkg-config.
set -eu
build_dir=$1
src_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$src_dir" -B "$work/client" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/client" >/dev/null
"$work/client/client"
pc_dir=$(dirname "$(find "$work/prefix" -name quillaneutil.pc)")
PKG_CONFIG_PATH=$pc_dir
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
cc -std=c99 -o "$work/pc_client" "$src_dir/../c99_client.c" $(pkg-config --cflags --libs quillaneutil)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir quillaneutil) "$work/pc_client"
echo "install ok"
