# OpenSSL 3 for the framework: the system's on Linux; on Windows OPENSSL_ROOT_DIR, by default what
# cmake/openssl-mingw64.sh has built and cached.

if(WIN32)
    if(NOT OPENSSL_ROOT_DIR AND NOT DEFINED ENV{OPENSSL_ROOT_DIR})
        execute_process(COMMAND ${PROJECT_SOURCE_DIR}/cmake/openssl-mingw64.sh --cached
            RESULT_VARIABLE result OUTPUT_VARIABLE root ERROR_VARIABLE problem OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR "OpenSSL for Windows is missing. Run cmake/openssl-mingw64.sh once, or pass "
                "-DOPENSSL_ROOT_DIR=<folder>.\n${problem}")
        endif()
        set(OPENSSL_ROOT_DIR ${root} CACHE PATH "OpenSSL 3 for the platform that is built for")
    elseif(NOT OPENSSL_ROOT_DIR)
        set(OPENSSL_ROOT_DIR $ENV{OPENSSL_ROOT_DIR} CACHE PATH "OpenSSL 3 for the platform that is built for")
    endif()
    # A toolchain that looks below its own roots only must look there too.
    list(APPEND CMAKE_FIND_ROOT_PATH ${OPENSSL_ROOT_DIR})
endif()

find_package(OpenSSL 3 REQUIRED)

# What travels with the programs on Windows; empty elsewhere.
set(RAVELO_OPENSSL_DLLS "")
if(WIN32)
    file(GLOB RAVELO_OPENSSL_DLLS ${OPENSSL_ROOT_DIR}/bin/libssl-3*.dll ${OPENSSL_ROOT_DIR}/bin/libcrypto-3*.dll)
    list(LENGTH RAVELO_OPENSSL_DLLS count)
    if(NOT count EQUAL 2)
        message(FATAL_ERROR "${OPENSSL_ROOT_DIR}/bin does not hold the two DLLs of OpenSSL 3")
    endif()
endif()
