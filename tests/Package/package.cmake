# Steps of the package tests: cmake -D STEP=... -P package.cmake, with the variables named below.
#   install       BUILD_DIR PREFIX
#   find_package  PREFIX WORK_DIR SOURCE_DIR CXX FLAGS TOOLCHAIN EMULATOR SUFFIX
#   pkg_config    PREFIX WORK_DIR SOURCE_DIR CXX FLAGS PKG_CONFIG LIBDIR

cmake_minimum_required(VERSION 3.25)

# Runs a command and fails with its output.
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed with ${result}: ${ARGV}\n${output}")
    endif()
    message(STATUS "${output}")
endfunction()

# Runs a program in the folder of the installed DLLs: Windows looks for them in the current folder too.
function(run_in_prefix)
    set(folder ${PREFIX})
    if(EXISTS ${PREFIX}/bin)
        set(folder ${PREFIX}/bin)
    endif()
    run(${CMAKE_COMMAND} -E chdir ${folder} ${ARGV})
endfunction()

function(install_package)
    file(REMOVE_RECURSE ${PREFIX})
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
endfunction()

function(build_by_find_package)
    file(REMOVE_RECURSE ${WORK_DIR})
    set(options -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS=${FLAGS}")
    if(TOOLCHAIN)
        # The cross toolchain looks for packages below its own root only; the installed tree is named.
        list(APPEND options --toolchain ${TOOLCHAIN} -DRavelo_DIR=${PREFIX}/lib/cmake/Ravelo)
    else()
        list(APPEND options -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${PREFIX})
    endif()
    run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR} ${options})
    run(${CMAKE_COMMAND} --build ${WORK_DIR})
    run_in_prefix(${EMULATOR} ${WORK_DIR}/outside${SUFFIX})
endfunction()

function(build_by_pkg_config)
    file(REMOVE_RECURSE ${WORK_DIR})
    file(MAKE_DIRECTORY ${WORK_DIR})
    set(ENV{PKG_CONFIG_PATH} ${PREFIX}/${LIBDIR}/pkgconfig)
    execute_process(COMMAND ${PKG_CONFIG} --cflags --libs ravelo OUTPUT_VARIABLE options
        OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    separate_arguments(options UNIX_COMMAND "${options} ${FLAGS}")
    run(${CXX} -std=c++20 ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/outside ${options})
    set(ENV{LD_LIBRARY_PATH} ${PREFIX}/${LIBDIR})
    run(${WORK_DIR}/outside)
endfunction()

if(STEP STREQUAL "install")
    install_package()
elseif(STEP STREQUAL "find_package")
    build_by_find_package()
elseif(STEP STREQUAL "pkg_config")
    build_by_pkg_config()
else()
    message(FATAL_ERROR "unknown step ${STEP}")
endif()
