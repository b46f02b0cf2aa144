#!/usr/bin/env bash
# Installs the build into a fresh prefix, compiles InstalledHost against <prefix>/include alone,
# and runs it against the installed library. For tcp and tls it first starts the installed
# ostrelink-server on 127.0.0.1 (a free port), with a throwaway certificate for tls.
# Usage: run-installed-host.sh BUILD_DIR SOURCE COMPILER "FLAGS" MODE THREADS ROUNDS
set -euo pipefail
build_dir=$1 source=$2 compiler=$3 flags=$4 mode=$5 threads=$6 rounds=$7
prefix=$(mktemp -d)
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    rm -rf "$prefix"
}
trap cleanup EXIT
cmake --install "$build_dir" --prefix "$prefix" > /dev/null
library="$prefix/Binaries/Native/Linux/X64/libOstrelinkJvmRuntimeNative.so"
test -f "$library"
test -f "$prefix/Binaries/Jvm/OstrelinkJvmRuntime.jar"
# shellcheck disable=SC2086
"$compiler" -std=c++17 $flags -I"$prefix/include" "$source" -o "$prefix/host" -ldl -pthread

port=""
if [ "$mode" = tcp ] || [ "$mode" = tls ]; then
    server_args=(--port 0)
    if [ "$mode" = tls ]; then
        openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 \
            -addext subjectAltName=IP:127.0.0.1 -keyout "$prefix/key.pem" \
            -out "$prefix/cert.pem" 2> /dev/null
        server_args+=(--tls-cert "$prefix/cert.pem" --tls-key "$prefix/key.pem")
        export OSTRELINK_TLS_CA_FILE="$prefix/cert.pem"
    fi
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
"$prefix/host" "$library" "$mode" "$threads" "$rounds" $port
