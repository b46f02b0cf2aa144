#!/usr/bin/env bash
# Installs the build into a fresh prefix and runs the installed ostrelink-host, which must find
# the installed library beside it, not the staged one.
# Usage: run-installed-tool.sh BUILD_DIR
set -euo pipefail
build_dir=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix" > /dev/null
cd "$prefix"
# The class path as the library builds it: the runtime jar four levels above its own directory.
native_dir=$(echo "$prefix"/Binaries/Native/*/*)
test -f "$native_dir/libOstrelinkJvmRuntimeNative.so"
runtime_jar="$native_dir/../../../../Binaries/Jvm/OstrelinkJvmRuntime.jar"
out=$("$prefix/bin/ostrelink-host" health echo installed call java.lang.System getProperty \
    java.class.path info)
printf '%s\n' "$out"
expect() {
    if ! grep -qxF -- "$1" <<< "$out"; then
        echo "FAIL: no line '$1'" >&2
        exit 1
    fi
}
expect "health: ok"
expect "echo: installed"
expect "call: $runtime_jar"
expect "info:"
expect "java.class.path: $runtime_jar"
status=0
"$prefix/bin/ostrelink-host" call no.such.Type m > /dev/null 2> err.txt || status=$?
if [ "$status" -ne 1 ] || ! grep -qF "ostrelink-host: java.lang.ClassNotFoundException: no.such.Type" err.txt; then
    echo "FAIL: a failed call gave status $status and: $(cat err.txt)" >&2
    exit 1
fi
echo "PASS installed ostrelink-host"
