# The CTest step that makes a tool-made fixture set once for a whole run (see tests/CMakeLists.txt):
#   cmake -DPYTHON=/usr/bin/python3 -DSCRIPT=.../make_KIND_fixtures.py -DOUT=folder -P make_fixtures.cmake
# The folder is emptied first. Without ffmpeg, or without mutagen in that Python, the step still
# passes but leaves no manifest.json, and the tests that need the set skip as they would anyway.
foreach(var PYTHON SCRIPT OUT)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "make_fixtures.cmake: -D${var}=... is missing")
    endif()
endforeach()

file(REMOVE_RECURSE "${OUT}")

find_program(QW_FFMPEG ffmpeg)
if(NOT QW_FFMPEG)
    message(STATUS "ffmpeg is not installed: no fixtures made")
    return()
endif()
execute_process(COMMAND "${PYTHON}" -c "import mutagen" RESULT_VARIABLE has_mutagen OUTPUT_QUIET ERROR_QUIET)
if(NOT has_mutagen STREQUAL "0")
    message(STATUS "${PYTHON} has no mutagen module: no fixtures made")
    return()
endif()

execute_process(COMMAND "${PYTHON}" "${SCRIPT}" "${OUT}" RESULT_VARIABLE result)
if(NOT result STREQUAL "0")
    message(FATAL_ERROR "${SCRIPT} failed (${result})")
endif()
if(NOT EXISTS "${OUT}/manifest.json")
    message(FATAL_ERROR "${SCRIPT} wrote no ${OUT}/manifest.json")
endif()
