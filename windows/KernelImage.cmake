# Builds kernel images: x64 PE32+ files of the native subsystem that a kernel loader takes as they
# are, and that our own loader maps into a process.

enable_language(RC)

# User-mode libraries, which CMake would name in every link.
set(CMAKE_C_STANDARD_LIBRARIES "")

include("${CMAKE_CURRENT_LIST_DIR}/../cmake/NetsievePefile.cmake")

set(NETSIEVE_IMAGE_CHECK "${CMAKE_CURRENT_LIST_DIR}/../scripts/check_image.py")
# The toolchain's lists of what the kernel, NDIS and the HAL export.
foreach(library ntoskrnl ndis hal)
    execute_process(COMMAND "${CMAKE_C_COMPILER}" -print-file-name=lib${library}.a
                    OUTPUT_VARIABLE NETSIEVE_${library}_LIBRARY OUTPUT_STRIP_TRAILING_WHITESPACE
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
set(NETSIEVE_VERSION_TEMPLATE "${CMAKE_CURRENT_LIST_DIR}/version.rc.in")

# The compiler makes SEH unwind tables for every function by itself. No stack probes: there is no
# __chkstk to call, and -Wframe-larger-than keeps every frame far below a page. The prefix map keeps
# the place of the source tree out of the image.
add_library(netsieve_image_flags INTERFACE)
target_compile_options(netsieve_image_flags INTERFACE
    -O2 -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
    -fno-ident -mno-red-zone -mno-stack-arg-probe -Wframe-larger-than=2048
    "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")

# netsieve_kernel_image(TARGET NAME name VERSION a.b.c.d DESCRIPTION text DEF file OUTPUT dir
#                       SOURCES file... [IMPORTS library target] [IMPORT_MODULES name...])
# Builds OUTPUT/NAME.sys, entered at DriverEntry, with the exports of DEF and nothing else exported.
# IMPORTS is the import library, made by netsieve_import_library, of the modules IMPORT_MODULES that it
# calls beside NDIS and the kernel. The build fails, and leaves no image, when scripts/check_image.py finds a fault in it.
function(netsieve_kernel_image target)
    cmake_parse_arguments(PARSE_ARGV 1 image "" "NAME;VERSION;DESCRIPTION;DEF;OUTPUT;IMPORTS"
                          "SOURCES;IMPORT_MODULES")

    string(REPLACE "." "," image_VERSION_COMMAS "${image_VERSION}")
    configure_file("${NETSIEVE_VERSION_TEMPLATE}" "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc" @ONLY)
    get_filename_component(image_DEF "${image_DEF}" ABSOLUTE)

    add_library(${target} MODULE ${image_SOURCES} "${image_DEF}"
                "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
    set_target_properties(${target} PROPERTIES
        PREFIX "" OUTPUT_NAME "${image_NAME}" SUFFIX ".sys"
        LIBRARY_OUTPUT_DIRECTORY "${image_OUTPUT}"
        LINK_DEPENDS "${image_DEF};${NETSIEVE_IMAGE_CHECK}"
        # The runtime library of C++ is no part of a kernel image.
        LINKER_LANGUAGE C)
    target_link_libraries(${target} PRIVATE netsieve_image_flags ${image_IMPORTS} ntoskrnl ndis hal)
    # A fixed base and no time stamp make two builds of one tree equal to the byte. Auto-import
    # would patch data references in a start-up routine that no kernel calls.
    target_link_options(${target} PRIVATE
        -nostdlib -s
        "LINKER:--subsystem,native:6.0" "LINKER:--entry,DriverEntry"
        "LINKER:--major-os-version,6" "LINKER:--minor-os-version,0"
        "LINKER:--image-base,0x140000000" "LINKER:--dynamicbase" "LINKER:--nxcompat"
        "LINKER:--exclude-all-symbols" "LINKER:--disable-auto-import"
        "LINKER:--disable-runtime-pseudo-reloc" "LINKER:--no-insert-timestamp"
        "LINKER:--fatal-warnings")
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND "${NETSIEVE_PEFILE_PYTHON}" "${NETSIEVE_IMAGE_CHECK}" --remove-bad
                --library ntoskrnl.exe=${NETSIEVE_ntoskrnl_LIBRARY}
                --library ndis.sys=${NETSIEVE_ndis_LIBRARY}
                --library hal.dll=${NETSIEVE_hal_LIBRARY}
                --def "${image_DEF}" --version "${image_VERSION}" "$<TARGET_FILE:${target}>"
                --imports ${image_IMPORT_MODULES}
        VERBATIM)
endfunction()

# netsieve_import_library(TARGET DEF file OUTPUT file MICROSOFT_OUTPUT file)
# Makes the import libraries of an image from its export list, for the GNU and for Microsoft's linker;
# link TARGET to call the image.
function(netsieve_import_library target)
    cmake_parse_arguments(PARSE_ARGV 1 library "" "DEF;OUTPUT;MICROSOFT_OUTPUT" "")
    find_program(NETSIEVE_LLVM_DLLTOOL NAMES llvm-dlltool-14 llvm-dlltool REQUIRED
                 DOC "Makes import libraries for Microsoft's linker; of the Debian package llvm-14")
    get_filename_component(library_DEF "${library_DEF}" ABSOLUTE)
    # The same bytes every time: without a prefix of ours the members bear the number of the process
    # that made them, and their symbols are named after the output as it is given here.
    get_filename_component(directory "${library_OUTPUT}" DIRECTORY)
    get_filename_component(name "${library_OUTPUT}" NAME)
    add_custom_command(OUTPUT "${library_OUTPUT}"
        COMMAND "${CMAKE_DLLTOOL}" --machine i386:x86-64 --deterministic-libraries
                --temp-prefix ${target}_
                --input-def "${library_DEF}" --output-lib "${name}"
        WORKING_DIRECTORY "${directory}"
        DEPENDS "${library_DEF}"
        VERBATIM)
    add_custom_command(OUTPUT "${library_MICROSOFT_OUTPUT}"
        COMMAND "${NETSIEVE_LLVM_DLLTOOL}" -m i386:x86-64
                -d "${library_DEF}" -l "${library_MICROSOFT_OUTPUT}"
        DEPENDS "${library_DEF}"
        VERBATIM)
    add_custom_target(${target}_file
        DEPENDS "${library_OUTPUT}" "${library_MICROSOFT_OUTPUT}")
    add_library(${target} INTERFACE)
    add_dependencies(${target} ${target}_file)
    target_link_libraries(${target} INTERFACE "${library_OUTPUT}")
endfunction()
