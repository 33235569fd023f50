# How a test executable and a deliberately broken driver are declared.

find_package(GTest REQUIRED)

# Whatever runs CTest, each test process gets the same sanitizer options. Fibers have stacks of
# their own, and a fake stack would survive the switch from one to another.
set(_netsieve_symbolizer "external_symbolizer_path=/usr/lib/llvm-14/bin/llvm-symbolizer")
set(_netsieve_sanitizer_options
    "ASAN_OPTIONS=detect_stack_use_after_return=0:strict_string_checks=1:${_netsieve_symbolizer}"
    "UBSAN_OPTIONS=print_stacktrace=1:${_netsieve_symbolizer}"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:history_size=5:${_netsieve_symbolizer}")

# What all tests include, compiled once for all, where headers are precompiled.
file(WRITE "${CMAKE_BINARY_DIR}/test_headers.cpp.new" "")
file(COPY_FILE "${CMAKE_BINARY_DIR}/test_headers.cpp.new" "${CMAKE_BINARY_DIR}/test_headers.cpp"
     ONLY_IF_DIFFERENT)
add_library(netsieve_test_headers OBJECT "${CMAKE_BINARY_DIR}/test_headers.cpp")
target_link_libraries(netsieve_test_headers PRIVATE netsieve_host netsieve_precompiled GTest::gmock
                                                    netsieve_warnings)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_precompile_headers(netsieve_test_headers PRIVATE
        <gmock/gmock.h> <gtest/gtest.h> "${PROJECT_SOURCE_DIR}/host/machine.h"
        "${PROJECT_SOURCE_DIR}/host/ndis/nbl_factory.h" "${PROJECT_SOURCE_DIR}/host/ndis/ndis.h")
endif()

# netsieve_add_test(name SOURCES file... [LIBS library...] [LABELS label...] [TIMEOUT seconds])
#
# Builds an executable from SOURCES, GoogleTest's main and LIBS, and makes a CTest test of each of
# its cases. Labels with a meaning to the build: `schedule`, a long search through schedules, whose
# length the environment variable NETSIEVE_SCHEDULES gives; `image`, loads the kernel image and
# needs it to be built; `cli`, runs the netsieve command. The macros NETSIEVE_IMAGE_PATH and
# NETSIEVE_SOURCE_DIR are strings in the sources.
function(netsieve_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;LIBS;LABELS")
    if(arg_UNPARSED_ARGUMENTS OR NOT arg_SOURCES)
        message(FATAL_ERROR "netsieve_add_test(${name}): SOURCES is needed, and these arguments "
                            "are not understood: ${arg_UNPARSED_ARGUMENTS}")
    endif()

    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gmock GTest::gtest_main
                                          netsieve_warnings)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        target_precompile_headers(${name} REUSE_FROM netsieve_test_headers)
    endif()
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
    target_compile_definitions(${name} PRIVATE
        NETSIEVE_IMAGE_PATH="${NETSIEVE_IMAGE}" NETSIEVE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")

    # Found when CTest starts and not when the executable is linked: a program that fails to start
    # is then a failed test run instead of a failed build. The values of parameters stay out of the
    # names, because a record prints as its bytes and those hold addresses.
    gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                         TEST_PREFIX "${name}." TEST_LIST ${name}_TESTS)
    _netsieve_set_test_properties(${name} "${arg_LABELS}" "${arg_TIMEOUT}")
endfunction()

# The discovery flattens lists among the properties it is given, so the properties are set by a
# script of our own that CTest reads after the discovered list.
function(_netsieve_set_test_properties name labels timeout)
    if(NOT timeout)
        # A case that hangs must fail long before CTest's own 25 minutes.
        set(timeout 300)
        if(NETSIEVE_SANITIZE)
            set(timeout 600)
        endif()
    endif()
    set(properties "TIMEOUT ${timeout} LABELS \"${labels}\"")
    if(NETSIEVE_SANITIZE)
        string(APPEND properties " ENVIRONMENT \"${_netsieve_sanitizer_options}\"")
    endif()
    if("image" IN_LIST labels)
        string(APPEND properties " REQUIRED_FILES \"${NETSIEVE_IMAGE}\"")
    endif()

    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_properties.cmake")
    file(CONFIGURE OUTPUT "${script}" @ONLY CONTENT
"foreach(test IN LISTS @name@_TESTS)
    set_tests_properties(\"\${test}\" PROPERTIES @properties@)
endforeach()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
endfunction()

# netsieve_add_mutant(name PATCH file FILE source [SEARCH])
#
# Makes an object library of the whole driver with one fault put into it: FILE, a source file given
# from the top of the tree, is replaced by what PATCH (a unified diff, with as few lines of context
# as you like) makes of it. A patch that no longer applies fails the build. SEARCH makes every load
# and store a scheduling point also where the rest of the build does not (clang only). A test names
# the mutant first among its LIBS; being objects, it leaves nothing to be taken from the driver's
# own library.
function(netsieve_add_mutant name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "SEARCH" "PATCH;FILE" "")
    get_property(sources GLOBAL PROPERTY NETSIEVE_DRIVER_SOURCES)
    set(original "${PROJECT_SOURCE_DIR}/${arg_FILE}")
    if(NOT original IN_LIST sources)
        message(FATAL_ERROR "netsieve_add_mutant(${name}): '${arg_FILE}' is no source of the driver")
    endif()
    get_filename_component(patch "${arg_PATCH}" ABSOLUTE)

    set(directory "${CMAKE_CURRENT_BINARY_DIR}/mutants/${name}")
    get_filename_component(file_name "${arg_FILE}" NAME)
    set(mutated "${directory}/${file_name}")
    file(MAKE_DIRECTORY "${directory}")
    # No fuzz: a hunk that only nearly fits may have put the fault somewhere else.
    add_custom_command(OUTPUT "${mutated}"
        COMMAND patch --quiet --force --fuzz=0 --reject-file=- --output=${mutated}
                ${original} ${patch}
        DEPENDS "${original}" "${patch}"
        COMMENT "Putting the fault of ${name} into ${arg_FILE}"
        VERBATIM)

    list(REMOVE_ITEM sources "${original}")
    add_library(${name} OBJECT ${sources} "${mutated}")
    target_link_libraries(${name} PRIVATE netsieve_driver_flags netsieve_native_exports
                                          netsieve_search_flags)
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
    if(arg_SEARCH AND NOT NETSIEVE_SEARCH)
        if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
            message(FATAL_ERROR "netsieve_add_mutant(${name}): SEARCH needs clang")
        endif()
        target_compile_options(${name} PRIVATE ${NETSIEVE_SEARCH_OPTIONS})
    endif()
endfunction()
