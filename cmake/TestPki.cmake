# The one throwaway PKI of the tests and benchmarks, made at build time with the openssl command
# line into OSTRELINK_TEST_PKI_DIR (target ostrelink_test_pki): ca.pem, which issued
# server.pem for 127.0.0.1, wronghost.pem for 127.0.0.2 and client.pem (each with its .key), and
# otherca.pem, which issued none of them. EC P-256 keys; the files never leave the build tree.
find_program(OSTRELINK_OPENSSL_EXECUTABLE openssl REQUIRED)
set(OSTRELINK_TEST_PKI_DIR ${CMAKE_BINARY_DIR}/pki)
set(pki_key -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3650)
file(MAKE_DIRECTORY ${OSTRELINK_TEST_PKI_DIR})
set(pki_commands "")
set(pki_outputs "")
foreach(ca IN ITEMS ca otherca)
    list(APPEND pki_commands COMMAND ${OSTRELINK_OPENSSL_EXECUTABLE} req -x509 ${pki_key}
        -keyout ${ca}.key -out ${ca}.pem -subj /CN=${ca}
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign)
    list(APPEND pki_outputs ${OSTRELINK_TEST_PKI_DIR}/${ca}.pem)
endforeach()
foreach(leaf IN ITEMS "server;subjectAltName=IP:127.0.0.1;serverAuth"
        "wronghost;subjectAltName=IP:127.0.0.2;serverAuth" "client;;clientAuth")
    list(GET leaf 0 name)
    list(GET leaf 1 alternative)
    list(GET leaf 2 usage)
    set(alternative_option "")
    if(alternative)
        set(alternative_option -addext ${alternative})
    endif()
    list(APPEND pki_commands COMMAND ${OSTRELINK_OPENSSL_EXECUTABLE} req -x509 ${pki_key}
        -CA ca.pem -CAkey ca.key -keyout ${name}.key -out ${name}.pem -subj /CN=${name}
        ${alternative_option} -addext basicConstraints=CA:FALSE
        -addext extendedKeyUsage=${usage})
    list(APPEND pki_outputs ${OSTRELINK_TEST_PKI_DIR}/${name}.pem)
endforeach()
add_custom_command(OUTPUT ${pki_outputs} ${pki_commands}
    WORKING_DIRECTORY ${OSTRELINK_TEST_PKI_DIR}
    COMMENT "Making the test PKI" VERBATIM)
add_custom_target(ostrelink_test_pki ALL DEPENDS ${pki_outputs})
