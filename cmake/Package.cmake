# What a sibling build finds after cmake --install: a CMake package and a pkg-config file for the
# contract headers. Both compute the prefix from their own location, so the installation can
# still be moved as a whole.
include(CMakePackageConfigHelpers)

add_library(ostrelink_contract INTERFACE)
set_target_properties(ostrelink_contract PROPERTIES EXPORT_NAME Contract)
target_include_directories(ostrelink_contract INTERFACE
    $<BUILD_INTERFACE:${OSTRELINK_INCLUDE_STAGE_DIR}> $<INSTALL_INTERFACE:include>)
install(TARGETS ostrelink_contract EXPORT OstrelinkRuntimeTargets)

set(package_dir lib/cmake/OstrelinkRuntime)
install(EXPORT OstrelinkRuntimeTargets NAMESPACE Ostrelink:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OstrelinkRuntimeConfig.cmake.in
    ${CMAKE_BINARY_DIR}/package/OstrelinkRuntimeConfig.cmake
    INSTALL_DESTINATION ${package_dir}
    PATH_VARS OSTRELINK_NATIVE_SUBDIR OSTRELINK_JVM_SUBDIR)
# Before 1.0 a new minor version may change the contract.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/OstrelinkRuntimeConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/OstrelinkRuntimeConfig.cmake
    ${CMAKE_BINARY_DIR}/package/OstrelinkRuntimeConfigVersion.cmake DESTINATION ${package_dir})

# Relative to the file, so that a moved tree still works; pkg-config --define-prefix gives the
# same paths without the "/../" (it sets prefix from where it found the file).
set(OSTRELINK_PC_PREFIX "\${pcfiledir}/../..")
configure_file(${CMAKE_CURRENT_LIST_DIR}/ostrelink-contract.pc.in
    ${CMAKE_BINARY_DIR}/package/ostrelink-contract.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/ostrelink-contract.pc DESTINATION lib/pkgconfig)

# What a user reads at run time: the doctor points at docs/errors.md of the installation.
install(FILES ${PROJECT_SOURCE_DIR}/docs/errors.md ${PROJECT_SOURCE_DIR}/docs/host-api.md
    ${PROJECT_SOURCE_DIR}/docs/main-job.md ${PROJECT_SOURCE_DIR}/docs/protocol.md DESTINATION docs)
install(FILES ${PROJECT_SOURCE_DIR}/tools/ostrelink-server/README.md DESTINATION docs
    RENAME ostrelink-server.md)

include(${CMAKE_CURRENT_LIST_DIR}/Debian.cmake)
