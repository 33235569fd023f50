# What `cmake --install` leaves behind: the command, and a package that find_package(netsieve) finds.
# The driver image and its import library are part of it when the image was built before.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/netsieve")
set(header_dir "${CMAKE_INSTALL_INCLUDEDIR}/netsieve")
get_filename_component(image_dir "${NETSIEVE_IMAGE}" DIRECTORY)

install(TARGETS netsieve_host netsieve_driver netsieve_hook EXPORT netsieve-targets)
install(EXPORT netsieve-targets NAMESPACE netsieve:: DESTINATION "${package_dir}")
# Under the names that they have in this tree, which is how they include each other.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/host" DESTINATION "${header_dir}"
        FILES_MATCHING PATTERN "*.h" PATTERN "host/client" EXCLUDE)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/src/platform" DESTINATION "${header_dir}")
install(FILES "${PROJECT_SOURCE_DIR}/src/client/netsieve_hook.h" DESTINATION "${header_dir}")
install(FILES "${PROJECT_SOURCE_DIR}/src/driver/driver_entry.h" DESTINATION "${header_dir}/driver")

# From the one to the other, so that an installed tree can be moved.
file(RELATIVE_PATH header_path "/${package_dir}" "/${header_dir}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/netsieve-config.cmake.in" netsieve-config.cmake @ONLY)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/netsieve-config-version.cmake"
                                 VERSION "${PROJECT_VERSION}" COMPATIBILITY SameMajorVersion
                                 ARCH_INDEPENDENT)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/netsieve-config.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/netsieve-config-version.cmake"
        DESTINATION "${package_dir}")
# These find each other by their places in this tree.
install(FILES "${CMAKE_CURRENT_LIST_DIR}/NetsieveHookFilter.cmake"
              "${CMAKE_CURRENT_LIST_DIR}/NetsievePefile.cmake"
        DESTINATION "${package_dir}/cmake")
install(PROGRAMS "${PROJECT_SOURCE_DIR}/scripts/check_image.py"
        DESTINATION "${package_dir}/scripts")
install(FILES "${PROJECT_SOURCE_DIR}/windows/KernelImage.cmake"
              "${PROJECT_SOURCE_DIR}/windows/version.rc.in"
              "${PROJECT_SOURCE_DIR}/windows/mingw-w64-x86_64.cmake"
        DESTINATION "${package_dir}/windows")
install(FILES "${image_dir}/NETSIEVE.sys" "${image_dir}/libnetsieve.a" "${image_dir}/netsieve.lib"
        DESTINATION "${package_dir}/image" OPTIONAL)
