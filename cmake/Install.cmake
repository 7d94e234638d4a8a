# What leaves the tree: exported names, installed files, package descriptions.

# Classes of the standard library that the compiler instantiates inside our code stay inside.
if(WIN32)
    # Without this a library that marks nothing for export would export everything.
    target_link_options(Plinthmd PRIVATE -Wl,--exclude-all-symbols)
    target_link_options(Ravelomd_ssl PRIVATE -Wl,--exclude-all-symbols)
else()
    foreach(library Plinthmd Ravelomd_ssl)
        target_link_options(${library} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
        set_target_properties(${library} PROPERTIES
            LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map INSTALL_RPATH "$ORIGIN")
    endforeach()
endif()

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Ravelo)

install(TARGETS Plinthmd Ravelomd_ssl EXPORT RaveloTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(RAVELO_BUILD_TOOLS)
    if(NOT WIN32)
        set_target_properties(ravelo-console PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    endif()
    install(TARGETS ravelo-console RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(DIRECTORY include/Ravelo Plinth/include/Plinth
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT RaveloTargets NAMESPACE Ravelo:: DESTINATION ${package_dir})

configure_package_config_file(cmake/RaveloConfig.cmake.in
    ${PROJECT_BINARY_DIR}/RaveloConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RaveloConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RaveloConfig.cmake ${PROJECT_BINARY_DIR}/RaveloConfigVersion.cmake
    DESTINATION ${package_dir})

# The pkg-config file finds its prefix from its own place, so that the installed tree may be moved.
file(RELATIVE_PATH RAVELO_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" RAVELO_PC_PREFIX "${RAVELO_PC_PREFIX}")
configure_file(cmake/ravelo.pc.in ${PROJECT_BINARY_DIR}/ravelo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ravelo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(MINGW)
    # The compiler's run-time libraries and OpenSSL's travel with ours.
    foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        file(REAL_PATH ${path} path)
        install(FILES ${path} DESTINATION ${CMAKE_INSTALL_BINDIR})
    endforeach()
    install(FILES ${RAVELO_OPENSSL_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
