# The build stages a real installation tree under ${OSTRELINK_STAGE_DIR}; cmake --install writes
# the same tree under its prefix. Tests run against the staged tree only.
set(OSTRELINK_STAGE_DIR ${CMAKE_BINARY_DIR}/stage)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64|ARM64")
    set(OSTRELINK_ARCH_DIR ARM64)
else()
    set(OSTRELINK_ARCH_DIR X64)
endif()
if(APPLE)
    set(OSTRELINK_NATIVE_SUBDIR Binaries/Native/MacOs/${OSTRELINK_ARCH_DIR})
else()
    set(OSTRELINK_NATIVE_SUBDIR Binaries/Native/Linux/${OSTRELINK_ARCH_DIR})
endif()
set(OSTRELINK_JVM_SUBDIR Binaries/Jvm)
set(OSTRELINK_NATIVE_STAGE_DIR ${OSTRELINK_STAGE_DIR}/${OSTRELINK_NATIVE_SUBDIR})
set(OSTRELINK_JVM_STAGE_DIR ${OSTRELINK_STAGE_DIR}/${OSTRELINK_JVM_SUBDIR})
set(OSTRELINK_INCLUDE_STAGE_DIR ${OSTRELINK_STAGE_DIR}/include)
set(OSTRELINK_BIN_STAGE_DIR ${OSTRELINK_STAGE_DIR}/bin)
# Everything that makes up the staged tree; tests depend on this one target.
add_custom_target(ostrelink_installation ALL)
function(ostrelink_add_to_installation target)
    add_dependencies(ostrelink_installation ${target})
endfunction()

file(MAKE_DIRECTORY ${OSTRELINK_NATIVE_STAGE_DIR} ${OSTRELINK_JVM_STAGE_DIR} ${OSTRELINK_BIN_STAGE_DIR})

# A shared library of the installation: staged beside this library and installed there.
function(ostrelink_stage_native target)
    set_target_properties(${target} PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY ${OSTRELINK_NATIVE_STAGE_DIR}
        PREFIX lib)
    install(TARGETS ${target} LIBRARY DESTINATION ${OSTRELINK_NATIVE_SUBDIR})
    add_dependencies(ostrelink_installation ${target})
endfunction()

# A program of the installation: staged and installed under bin/.
function(ostrelink_stage_program target)
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${OSTRELINK_BIN_STAGE_DIR})
    install(TARGETS ${target} RUNTIME DESTINATION bin)
    add_dependencies(ostrelink_installation ${target})
endfunction()

# A file of the Java side, staged and installed under Binaries/Jvm/.
function(ostrelink_stage_jvm_file file)
    install(FILES ${file} DESTINATION ${OSTRELINK_JVM_SUBDIR})
endfunction()

# The contract headers: what a sibling runtime library builds against, under include/ostrelink/.
function(ostrelink_stage_headers folder)
    file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.h)
    set(staged "")
    foreach(header IN LISTS headers)
        get_filename_component(name ${header} NAME)
        set(out ${OSTRELINK_INCLUDE_STAGE_DIR}/ostrelink/${name})
        add_custom_command(OUTPUT ${out} COMMAND ${CMAKE_COMMAND} -E copy ${header} ${out}
            DEPENDS ${header} VERBATIM)
        list(APPEND staged ${out})
    endforeach()
    add_custom_target(ostrelink_contract_headers ALL DEPENDS ${staged})
    add_dependencies(ostrelink_installation ostrelink_contract_headers)
    install(FILES ${headers} DESTINATION include/ostrelink)
endfunction()
