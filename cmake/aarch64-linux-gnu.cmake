# Cross build for 64-bit ARM Linux with Debian's cross compiler (g++-aarch64-linux-gnu) and the
# arm64 packages of multiarch: scripts/aarch64 uses it. Libraries and headers come from the
# arm64 multiarch folders; programs (javac, jar, openssl) stay the build machine's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# pkg-config would hand FindOpenSSL the build machine's libraries.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(OPENSSL_ROOT_DIR /usr/lib/aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L /)
