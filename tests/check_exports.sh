#!/bin/sh
# The shared object exports the top table, its pointer and the shell wrapper, and nothing else.
set -eu
lib=$1
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort | tr '\n' ' ')
expected="Func_pox_system util_ops_pfun util_ops_quillane_fun "
[ "$actual" = "$expected" ] || { echo "exported: $actual, expected: $expected"; exit 1; }
echo "exports ok: $actual"
