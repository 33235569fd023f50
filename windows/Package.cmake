# The package: everything that a driver author on Windows gets, in one directory that can be handed
# over as it is. What its texts say of the driver is taken from the driver's source.

# Sets VARIABLE to what PATTERN's group matches in FILE, which has to have exactly one such line.
function(netsieve_read_source variable file pattern)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(STRINGS "${file}" lines REGEX "${pattern}")
    list(LENGTH lines count)
    if(NOT count EQUAL 1)
        message(FATAL_ERROR "${file} has ${count} lines that match '${pattern}', and not one")
    endif()
    string(REGEX MATCH "${pattern}" lines "${lines}")
    set(${variable} "${CMAKE_MATCH_1}" PARENT_SCOPE)
endfunction()

set(driver_entry "${CMAKE_SOURCE_DIR}/src/driver/driver_entry.cpp")
netsieve_read_source(NETSIEVE_UNIQUE_NAME "${driver_entry}" "UniqueName, u\"([^\"]+)\"")
netsieve_read_source(NETSIEVE_SERVICE "${driver_entry}" "ServiceName, u\"([^\"]+)\"")
netsieve_read_source(NETSIEVE_FRIENDLY_NAME "${driver_entry}" "FriendlyName, u\"([^\"]+)\"")
netsieve_read_source(NETSIEVE_DRIVER_VERSION "${CMAKE_SOURCE_DIR}/src/config/system_information.cpp"
                     "DRIVER_VERSION\\[\\] = \"([0-9,]+)\"")
string(REPLACE "," "." NETSIEVE_DRIVER_VERSION "${NETSIEVE_DRIVER_VERSION}")
# Moves on with the version: setup compares the dates of two packages first.
set(NETSIEVE_DRIVER_DATE 11/23/2026)

# netsieve_package(SAMPLES name... FILES file... LIBRARIES file... DEPENDS target...)
# Lays out the package from the files that the build made and the .inf files it writes. SAMPLES are
# targets of netsieve_kernel_image, described by the variable SAMPLE_name.
function(netsieve_package)
    cmake_parse_arguments(PARSE_ARGV 0 package "" "" "SAMPLES;FILES;LIBRARIES;DEPENDS")
    set(texts "${CMAKE_CURRENT_BINARY_DIR}/package")
    set(templates "${CMAKE_CURRENT_SOURCE_DIR}/package")
    configure_file("${templates}/netsieve.inf.in" "${texts}/netsieve.inf" @ONLY NEWLINE_STYLE DOS)
    configure_file("${templates}/README.txt.in" "${texts}/README.txt" @ONLY NEWLINE_STYLE DOS)
    set(samples "")
    foreach(sample_NAME IN LISTS package_SAMPLES)
        set(sample_DESCRIPTION "${SAMPLE_${sample_NAME}}")
        configure_file("${templates}/sample.inf.in" "${texts}/${sample_NAME}.inf" @ONLY
                       NEWLINE_STYLE DOS)
        list(APPEND samples "$<TARGET_FILE:${sample_NAME}>" "${texts}/${sample_NAME}.inf"
             "${CMAKE_SOURCE_DIR}/samples/${sample_NAME}/${sample_NAME}.cpp")
    endforeach()

    file(GLOB platform CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/src/platform/*")
    set(directory "${NETSIEVE_PACKAGE_DIR}")
    add_custom_target(netsieve_package ALL
        # From nothing each time, or it would keep what no longer belongs to it.
        COMMAND "${CMAKE_COMMAND}" -E rm -rf "${directory}"
        COMMAND "${CMAKE_COMMAND}" -E make_directory
                "${directory}/include/platform" "${directory}/lib" "${directory}/samples"
        COMMAND "${CMAKE_COMMAND}" -E copy ${package_FILES} "${texts}/netsieve.inf"
                "${texts}/README.txt" "${directory}"
        COMMAND "${CMAKE_COMMAND}" -E copy "${CMAKE_SOURCE_DIR}/src/client/netsieve_hook.h"
                "${directory}/include"
        COMMAND "${CMAKE_COMMAND}" -E copy ${platform} "${directory}/include/platform"
        COMMAND "${CMAKE_COMMAND}" -E copy ${package_LIBRARIES} "${directory}/lib"
        COMMAND "${CMAKE_COMMAND}" -E copy ${samples} "${directory}/samples"
        COMMENT "Laying out the package for Windows in ${directory}"
        VERBATIM)
    add_dependencies(netsieve_package ${package_DEPENDS} ${package_SAMPLES})
endfunction()
