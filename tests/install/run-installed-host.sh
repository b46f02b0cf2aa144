#!/usr/bin/env bash
# Installs the build into a fresh prefix, compiles InstalledHost against <prefix>/include alone,
# and runs it against the installed library.
# Usage: run-installed-host.sh BUILD_DIR SOURCE COMPILER "FLAGS" MODE THREADS ROUNDS
set -euo pipefail
build_dir=$1 source=$2 compiler=$3 flags=$4 mode=$5 threads=$6 rounds=$7
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix" > /dev/null
library="$prefix/Binaries/Native/Linux/X64/libOstrelinkJvmRuntimeNative.so"
test -f "$library"
test -f "$prefix/Binaries/Jvm/OstrelinkJvmRuntime.jar"
# shellcheck disable=SC2086
"$compiler" -std=c++17 $flags -I"$prefix/include" "$source" -o "$prefix/host" -ldl -pthread
"$prefix/host" "$library" "$mode" "$threads" "$rounds"
