# Cross-compiles for 64-bit Windows with Debian's mingw-w64. The -win32 compilers are named in
# full: the plain names follow an alternative that the -posix packages may have taken.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-win32)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-win32)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_DLLTOOL x86_64-w64-mingw32-dlltool)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# In an installed package: what is built with this file finds that package, which lies outside the
# places that the search is confined to.
if(EXISTS "${CMAKE_CURRENT_LIST_DIR}/../netsieve-config.cmake")
    get_filename_component(netsieve_DIR "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
endif()
