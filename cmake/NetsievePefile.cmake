# Finds NETSIEVE_PEFILE_PYTHON, a Python 3 that can import pefile. The Debian package serves the
# system's interpreter only, which need not be first in the path.

function(_netsieve_imports_pefile result candidate)
    execute_process(COMMAND "${candidate}" -c "import pefile" RESULT_VARIABLE status
                    OUTPUT_QUIET ERROR_QUIET)
    if(NOT status EQUAL 0)
        set(${result} FALSE PARENT_SCOPE)
    endif()
endfunction()

find_program(NETSIEVE_PEFILE_PYTHON NAMES python3 PATHS /usr/bin
             VALIDATOR _netsieve_imports_pefile
             DOC "A Python 3 that can import pefile, to check kernel images")
if(NOT NETSIEVE_PEFILE_PYTHON)
    message(FATAL_ERROR "No python3 can import pefile, which checks every kernel image: install "
                        "the Debian package python3-pefile.")
endif()
