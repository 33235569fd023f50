# How a hook filter is declared, in this tree and in one that found the installed package.

option(NETSIEVE_LOADS_AND_STORES
       "Build every hook filter with LOADS_AND_STORES, which needs clang" OFF)

# netsieve_add_hook_filter(NAME SOURCES file... [VERSION a.b.c.d] [DESCRIPTION text] [OUTPUT dir]
#                          [LOADS_AND_STORES])
#
# Declares the hook filter NAME, a C identifier. Built for this machine it makes two targets:
#   NAME        the shared object NAME.so, which `netsieve replay --hook driver:` loads;
#   NAME_host   a static library for tests, which brings the driver and its host along; the entry
#               routine is called NAME_DriverEntry in it, since the driver has a DriverEntry too.
# Built with the toolchain file for Windows it makes one:
#   NAME        the driver NAME.sys. VERSION and DESCRIPTION are those of its version resource.
# Shared objects and drivers are left in OUTPUT, by default the current binary directory.
# With LOADS_AND_STORES the simulated scheduler may change over before each plain load and store of
# the filter too, so that a race on a plain variable is found. That needs clang; the driver NAME.sys
# is the same with it as without.
function(netsieve_add_hook_filter name)
    cmake_parse_arguments(PARSE_ARGV 1 hook "LOADS_AND_STORES" "VERSION;DESCRIPTION;OUTPUT" "SOURCES")
    if(hook_UNPARSED_ARGUMENTS OR NOT hook_SOURCES OR NOT name MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
        message(FATAL_ERROR "netsieve_add_hook_filter(${name}): the name has to be a C identifier, "
                            "SOURCES is needed, and these arguments are not understood: "
                            "'${hook_UNPARSED_ARGUMENTS}'")
    endif()
    if(NOT hook_OUTPUT)
        set(hook_OUTPUT "${CMAKE_CURRENT_BINARY_DIR}")
    endif()
    if(CMAKE_SYSTEM_NAME STREQUAL "Windows")
        _netsieve_hook_image(${name})
    else()
        _netsieve_hook_object(${name})
    endif()
endfunction()

function(_netsieve_hook_image name)
    foreach(default VERSION=0.0.0.0 "DESCRIPTION=NetSieve hook filter")
        string(REGEX MATCH "^([A-Z]+)=(.*)$" default "${default}")
        if(NOT hook_${CMAKE_MATCH_1})
            set(hook_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
        endif()
    endforeach()
    # A hook filter exports nothing.
    file(CONFIGURE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/${name}.def" @ONLY
         CONTENT "LIBRARY @name@.sys\nEXPORTS\n")
    netsieve_kernel_image(${name}
        NAME ${name}
        VERSION ${hook_VERSION}
        DESCRIPTION "${hook_DESCRIPTION}"
        DEF "${CMAKE_CURRENT_BINARY_DIR}/${name}.def"
        OUTPUT "${hook_OUTPUT}"
        SOURCES ${hook_SOURCES}
        IMPORTS netsieve_imports
        IMPORT_MODULES netsieve.sys hal.dll)
    target_link_libraries(${name} PRIVATE netsieve::hook)
endfunction()

# Without a granularity (here func) clang 14 accepts the two trace flags and inserts nothing.
function(netsieve_trace_loads_and_stores target scope)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "Points at loads and stores need clang, and this is "
                            "${CMAKE_CXX_COMPILER_ID}; configure a build directory of its own "
                            "with CC=clang-14 CXX=clang++-14.")
    endif()
    target_compile_options(${target} ${scope} -fsanitize-coverage=func,trace-loads,trace-stores)
endfunction()

function(_netsieve_hook_object name)
    add_library(${name} MODULE ${hook_SOURCES})
    set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY "${hook_OUTPUT}")
    add_library(${name}_host STATIC EXCLUDE_FROM_ALL ${hook_SOURCES})
    target_compile_definitions(${name}_host PRIVATE DriverEntry=${name}_DriverEntry)
    target_link_libraries(${name}_host INTERFACE netsieve::driver)
    foreach(target ${name} ${name}_host)
        # Freestanding, so that this build cannot use what the driver could not have.
        target_compile_options(${target} PRIVATE -ffreestanding -fno-exceptions -fno-rtti
                                                 -fno-threadsafe-statics)
        target_link_libraries(${target} PRIVATE netsieve::hook)
        if(hook_LOADS_AND_STORES OR NETSIEVE_LOADS_AND_STORES)
            netsieve_trace_loads_and_stores(${target} PRIVATE)
        endif()
        if(TARGET netsieve_warnings)
            target_link_libraries(${target} PRIVATE netsieve_warnings)
        endif()
    endforeach()
endfunction()
