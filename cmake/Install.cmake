# An installation: headers, a CMake package and pkg-config files beside the libraries and the tool.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/ DESTINATION include FILES_MATCHING PATTERN "*.h")
# The common library's classes and what their headers stand on.
install(DIRECTORY plugin/common/PluginLib/ plugin/common/map_v2/rvp/ DESTINATION include/dorado
        FILES_MATCHING PATTERN "*.h"
        PATTERN LvmCharClass.h EXCLUDE PATTERN LvmDumper.h EXCLUDE PATTERN RaidLayout.h EXCLUDE)
install(FILES plugin/dorado/Error.h plugin/dorado/RvpLinuxCommon.h DESTINATION include/dorado)
install(FILES host/kmhost.h DESTINATION include)

install(EXPORT dorado NAMESPACE dorado:: FILE dorado-targets.cmake DESTINATION lib/cmake/dorado)
file(WRITE ${PROJECT_BINARY_DIR}/dorado-config.cmake
     "include(\${CMAKE_CURRENT_LIST_DIR}/dorado-targets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/dorado-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/dorado-config.cmake
              ${PROJECT_BINARY_DIR}/dorado-config-version.cmake
        DESTINATION lib/cmake/dorado)

foreach(library dorado kmhost)
    configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION lib/pkgconfig)
endforeach()

# What is read: man pages (the tool installs its own), the pages of docs/, the package's papers.
install(FILES docs/libdorado.3 DESTINATION share/man/man3)
install(FILES docs/libfso.7 DESTINATION share/man/man7)
install(FILES README.md DESTINATION share/doc/dorado)
install(DIRECTORY docs/ DESTINATION share/doc/dorado/docs FILES_MATCHING PATTERN "*.md"
        PATTERN "*.svg" PATTERN package EXCLUDE)
install(DIRECTORY examples DESTINATION share/doc/dorado)
install(FILES docs/package/copyright docs/package/changelog DESTINATION share/doc/dorado)
install(FILES docs/package/lintian-overrides DESTINATION share/lintian/overrides RENAME dorado)
