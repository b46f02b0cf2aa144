#!/usr/bin/env bash
# Installs the build into a fresh prefix and moves it, builds InstalledHost through
# find_package(OstrelinkRuntime) against the moved prefix alone, checks the pkg-config file, and
# runs the host against the installed library. For tcp and tls it first starts the installed
# ostrelink-server on 127.0.0.1 (a free port), with the test PKI's server certificate for tls.
# Usage: run-installed-host.sh BUILD_DIR PROJECT_DIR COMPILER "FLAGS" MODE THREADS ROUNDS PKI_DIR
set -euo pipefail
build_dir=$1 project=$2 compiler=$3 flags=$4 mode=$5 threads=$6 rounds=$7 pki=$8
work=$(mktemp -d)
prefix="$work/moved"
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
cmake --install "$build_dir" --prefix "$work/installed" > /dev/null
# Nothing of the installation may depend on where it was installed.
mv "$work/installed" "$prefix"
test -f "$prefix/Binaries/Jvm/OstrelinkJvmRuntime.jar"
cmake -S "$project" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$flags" > /dev/null
cmake --build "$work/build" > /dev/null
cflags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags ostrelink-contract)
include_dir=$(sed 's/^-I//; s/ *$//' <<< "$cflags")
if [ "$(realpath "$include_dir")" != "$(realpath "$prefix/include")" ]; then
    echo "FAIL: pkg-config --cflags ostrelink-contract gives '$cflags'" >&2
    exit 1
fi

port=""
if [ "$mode" = tcp ] || [ "$mode" = tls ]; then
    server_args=(--port 0)
    if [ "$mode" = tls ]; then
        server_args+=(--tls-cert "$pki/server.pem" --tls-key "$pki/server.key")
        export OSTRELINK_TLS_CA_FILE="$pki/ca.pem"
    fi
    # The file exists before the server starts: the shell that runs it in the background may
    # not have opened it yet when the loop below first reads it, and sed fails on a missing file.
    : > "$prefix/server.out"
    "$prefix/bin/ostrelink-server" "${server_args[@]}" > "$prefix/server.out" 2>&1 &
    server_pid=$!
    for _ in $(seq 1 300); do
        port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$prefix/server.out")
        [ -n "$port" ] && break
        kill -0 "$server_pid" 2>/dev/null || { cat "$prefix/server.out"; exit 1; }
        sleep 0.1
    done
    [ -n "$port" ] || { echo "ostrelink-server did not start"; cat "$prefix/server.out"; exit 1; }
fi
"$work/build/InstalledHost" "$mode" "$threads" "$rounds" $port
