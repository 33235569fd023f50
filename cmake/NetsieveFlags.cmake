# Options and the interface targets that carry the compiler flags.

option(NETSIEVE_TESTS "Build the test suite" ON)
option(NETSIEVE_BENCH "Build the benchmarks" ON)
option(NETSIEVE_SEARCH "Make every plain load and store of the driver a scheduling point (clang)" OFF)
option(NETSIEVE_COVERAGE "Count which lines and branches of the driver are taken (clang)" OFF)
option(NETSIEVE_LOCK_ANALYSIS "Check which lock guards what (clang); off where locks are removed on purpose" ON)
set(NETSIEVE_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")
set(NETSIEVE_IMAGE "${CMAKE_SOURCE_DIR}/build/image/NETSIEVE.sys" CACHE FILEPATH
    "The cross-built driver image that the tests run")
set(NETSIEVE_PACKAGE_DIR "${CMAKE_SOURCE_DIR}/build/package" CACHE PATH
    "Where the image build leaves the package for Windows")
set(NETSIEVE_TEST_IMAGE_DIR "${CMAKE_SOURCE_DIR}/build/image-tests" CACHE PATH
    "Where the image build leaves the images that only tests load")
set(NETSIEVE_COMMAND_DIR "${CMAKE_BINARY_DIR}/bin" CACHE PATH "Where the netsieve command is left")

# Before any target is made: a target keeps the launcher that was set when it was. Without this
# sloppiness ccache keeps nothing that was compiled with a precompiled header.
find_program(NETSIEVE_CCACHE ccache)
mark_as_advanced(NETSIEVE_CCACHE)
if(NETSIEVE_CCACHE)
    foreach(language C CXX)
        if(NOT DEFINED CMAKE_${language}_COMPILER_LAUNCHER)
            set(CMAKE_${language}_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
                CCACHE_SLOPPINESS=pch_defines,time_macros "${NETSIEVE_CCACHE}")
        endif()
    endforeach()
endif()

# Headers of others that most files of the host, the command and the tests include: two thirds of the
# time to compile one went into reading them. With gcc 12 a precompiled header is no system header any
# more, and it warns of the library's own code. For ccache the time of one must not be part of it.
add_library(netsieve_precompiled INTERFACE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(netsieve_precompiled INTERFACE
        "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-Xclang -fno-pch-timestamp>")
    target_precompile_headers(netsieve_precompiled INTERFACE
        <algorithm> <array> <condition_variable> <cstdint> <filesystem> <functional> <map> <memory>
        <mutex> <optional> <span> <string> <vector> <fmt/format.h>)
endif()

add_library(netsieve_warnings INTERFACE)
target_compile_options(netsieve_warnings INTERFACE
    -Wall -Wextra -Werror -Wshadow -Wundef -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)

if(NETSIEVE_SANITIZE)
    add_compile_options(-fsanitize=${NETSIEVE_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${NETSIEVE_SANITIZE})
    if(NETSIEVE_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    if(NETSIEVE_SANITIZE STREQUAL "thread")
        add_compile_options(
            "-fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/tsan_ignored.txt")
    endif()
endif()

# The driver is freestanding wherever it is built, so that the native build cannot use what the
# image could not have.
add_library(netsieve_driver_flags INTERFACE)
target_compile_options(netsieve_driver_flags INTERFACE
    -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics)
target_include_directories(netsieve_driver_flags INTERFACE "${CMAKE_SOURCE_DIR}/src")
target_link_libraries(netsieve_driver_flags INTERFACE netsieve_warnings)

# ThreadSanitizer does not look at what the C library's functions touch (host/sched/happens_before.cpp),
# but at what the driver's copies do.
if(NETSIEVE_SANITIZE STREQUAL "thread")
    foreach(routine memcpy memset memcmp)
        target_compile_definitions(netsieve_driver_flags INTERFACE
            ${routine}=NetsieveWatched_${routine})
    endforeach()
endif()

# The red zones of a sanitizer make frames larger than the driver's own.
if(NOT NETSIEVE_SANITIZE)
    target_compile_options(netsieve_driver_flags INTERFACE -Wframe-larger-than=2048)
endif()

# The native driver's exports have names of their own, NetsieveNative_ITarnHK...: under the published
# ones the host has functions that see what clients call, and call these.
add_library(netsieve_native_exports INTERFACE)
file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/../windows/NETSIEVE.def" exports REGEX "^ +ITarnHK")
foreach(export IN LISTS exports)
    string(STRIP "${export}" export)
    target_compile_definitions(netsieve_native_exports INTERFACE
        ${export}=NetsieveNative_${export})
endforeach()

# For the driver's sources alone, never for the host's: the host answers these calls, and must not
# be called from inside itself.
add_library(netsieve_search_flags INTERFACE)
if(NETSIEVE_SEARCH)
    netsieve_trace_loads_and_stores(netsieve_search_flags INTERFACE)
endif()
