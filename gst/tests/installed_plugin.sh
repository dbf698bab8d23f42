#!/bin/sh
# The installed plugin loads from the install tree alone: GST_PLUGIN_PATH at
# its directory, no library path, no system plugins. It finds
# libquillaneutil through its run path.
#
#   installed_plugin.sh BUILD_DIR GST_INSPECT
set -u
build=$1 inspect=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-gst-install.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT

if ! cmake --install "$build" --prefix "$work/prefix" >"$work/install.txt" 2>&1; then
    echo "FAIL: cmake --install failed:" >&2
    head -n 10 "$work/install.txt" >&2
    exit 1
fi
plugin=$(find "$work/prefix" -path '*/gstreamer-1.0/libgstquillanetcstamp.so')
if [ -z "$plugin" ]; then
    echo "FAIL: the install tree holds no gstreamer-1.0/libgstquillanetcstamp.so" >&2
    exit 1
fi
if ! env -u LD_LIBRARY_PATH GST_PLUGIN_PATH="$(dirname "$plugin")" GST_PLUGIN_SYSTEM_PATH_1_0= \
    GST_REGISTRY="$work/registry.bin" "$inspect" quillanetcstamp >"$work/inspect.txt" 2>&1; then
    echo "FAIL: gst-inspect-1.0 cannot load the installed plugin:" >&2
    head -n 10 "$work/inspect.txt" >&2
    exit 1
fi
echo "installed plugin: ${plugin#"$work/prefix/"} loads"
