# The .deb (cpack -G DEB): the installation tree, whole, under OSTRELINK_DEB_PREFIX, and beside it
# only what must sit where the system looks: the tools on PATH, the CMake package and the
# pkg-config file where find_package and pkg-config search by default, the service, its settings
# and the copyright. Those are the "debian" component, left out of a plain cmake --install (the
# relocatable tree, packed as the tarball) by EXCLUDE_FROM_ALL.
# /opt is for add-on software that no package manages (lintian: dir-or-file-in-opt, an error);
# a package's private tree belongs under /usr/lib.
set(OSTRELINK_DEB_PREFIX /usr/lib/ostrelink)
set(OSTRELINK_DEB_NAME ostrelink-jvm-runtime)
set(deb_source ${PROJECT_SOURCE_DIR}/packaging/debian)
set(deb_build ${CMAKE_BINARY_DIR}/package/debian)
file(MAKE_DIRECTORY ${deb_build}/bin)

foreach(tool IN ITEMS ostrelink-host ostrelink-server ostrelink-stress)
    # The tools find the tree from /proc/self/exe, which is the link's target.
    file(RELATIVE_PATH target /usr/bin ${OSTRELINK_DEB_PREFIX}/bin/${tool})
    file(CREATE_LINK ${target} ${deb_build}/bin/${tool} SYMBOLIC)
    install(FILES ${deb_build}/bin/${tool} DESTINATION /usr/bin COMPONENT debian EXCLUDE_FROM_ALL)
endforeach()

# find_package(OstrelinkRuntime) with no hints: /usr/lib/cmake/<name>/ forwards to the tree's
# own package, which computes the prefix from its own location.
set(deb_package_dir ${OSTRELINK_DEB_PREFIX}/lib/cmake/OstrelinkRuntime)
foreach(file IN ITEMS OstrelinkRuntimeConfig.cmake OstrelinkRuntimeConfigVersion.cmake)
    file(WRITE ${deb_build}/cmake/${file} "include(\"${deb_package_dir}/${file}\")\n")
    install(FILES ${deb_build}/cmake/${file} DESTINATION /usr/lib/cmake/OstrelinkRuntime
        COMPONENT debian EXCLUDE_FROM_ALL)
endforeach()

# pkg-config ostrelink-contract with no PKG_CONFIG_PATH, and clean absolute paths.
set(OSTRELINK_PC_PREFIX ${OSTRELINK_DEB_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/ostrelink-contract.pc.in
    ${deb_build}/ostrelink-contract.pc @ONLY)
install(FILES ${deb_build}/ostrelink-contract.pc DESTINATION /usr/share/pkgconfig
    COMPONENT debian EXCLUDE_FROM_ALL)

# ostrelink-server as a service: installed, not enabled.
install(FILES ${deb_source}/ostrelink-server.service DESTINATION /lib/systemd/system
    COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${deb_source}/ostrelink-server.default DESTINATION /etc/default
    RENAME ostrelink-server COMPONENT debian EXCLUDE_FROM_ALL)
# A native package (no Debian revision): its changelog is changelog.gz.
execute_process(COMMAND gzip -9nc ${deb_source}/changelog OUTPUT_FILE ${deb_build}/changelog.gz
    COMMAND_ERROR_IS_FATAL ANY)
install(FILES ${deb_source}/copyright ${deb_build}/changelog.gz DESTINATION /usr/share/doc/${OSTRELINK_DEB_NAME}
    COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${deb_source}/lintian-overrides DESTINATION /usr/share/lintian/overrides
    RENAME ${OSTRELINK_DEB_NAME} COMPONENT debian EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${OSTRELINK_DEB_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Ostrelink")
set(CPACK_PACKAGE_CONTACT "Ostrelink Dev <dev@ostrelink.dev>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "JVM runtime native library of the Ostrelink family")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "libOstrelinkJvmRuntimeNative makes a JVM callable from a host process and lets
Java call other runtimes in memory or over TCP/TLS. The package holds the
library, the runtime jar, the contract headers with a CMake package and a
pkg-config file, and the tools ostrelink-host, ostrelink-server (with a
systemd unit, not enabled) and ostrelink-stress.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${OSTRELINK_DEB_PREFIX})
set(CPACK_INSTALL_PREFIX ${OSTRELINK_DEB_PREFIX})
# The absolute destinations above land in the package's root, not on the build machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CMAKE_BINARY_DIR};${PROJECT_NAME};ALL;/" "${CMAKE_BINARY_DIR};${PROJECT_NAME};debian;/")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# A headless Java runtime of 17 or newer: the packages of later versions provide the name of
# 17 as well. libssl3, libc6 and libstdc++6 come from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "openjdk-17-jre-headless | java17-runtime-headless")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# CPack asks dpkg for the architecture, which is the build machine's; a cross build names its own.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${deb_source}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
include(CPack)
