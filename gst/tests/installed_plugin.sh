#!/bin/sh
# The installed plugin loads from the install tree alone: it finds libquillaneutil by its run path.
#   installed_plugin.sh BUILD_DIR GST_INSPECT
set -u
work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-gst-install.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cmake --install "$1" --prefix "$work/prefix" >"$work/log.txt" 2>&1 &&
    plugin=$(find "$work/prefix" -path '*/gstreamer-1.0/libgstquillanetcstamp.so') && [ -n "$plugin" ] &&
    env -u LD_LIBRARY_PATH GST_PLUGIN_PATH="$(dirname "$plugin")" GST_PLUGIN_SYSTEM_PATH_1_0= \
        GST_REGISTRY="$work/registry.bin" "$2" quillanetcstamp >"$work/log.txt" 2>&1 ||
    { echo "FAIL: the installed plugin does not load:" >&2; head -n 10 "$work/log.txt" >&2; exit 1; }
