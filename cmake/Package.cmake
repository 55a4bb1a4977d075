# A Debian package: `cpack` in the build folder. Its root /usr is a host's root directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dorado)
set(CPACK_PACKAGE_VENDOR dorado)
set(CPACK_PACKAGE_CONTACT "dorado maintainers <maintainers@dorado.example>" CACHE STRING
    "Name and address in the package's Maintainer field")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "map the files of unmounted volumes to byte runs")
set(CPACK_PACKAGE_DESCRIPTION
"A mapping provider for backup, restore and forensic hosts: given a volume's
name and a read callback it tells which byte runs of the volume hold which
bytes of each file. Nothing is mounted and no root is needed.
.
The package holds the provider, a library that reads ext2, ext3 and ext4, a
stand-in host, the headers of all of them, and rvpmap, a tool that lists,
catalogues and restores files from images, also from the disks of md arrays
and LVM2 volume groups.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianTree.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)

# dpkg's control files for shared libraries in a folder of the loader's.
set(control ${PROJECT_BINARY_DIR}/debian)
set(shlibs "")
foreach(library dorado kmhost)
    string(APPEND shlibs "lib${library} ${PROJECT_VERSION_MAJOR} dorado (>= ${PROJECT_VERSION})\n")
endforeach()
file(WRITE ${control}/shlibs "${shlibs}")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
