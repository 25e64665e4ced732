# whisper.cpp comes from the pinned npm package (there is no Debian package).
# Built once per build tree: static, CPU back-end only, portable (no -march=native),
# OpenMP on because decoding collapses under load without it.
if(TARGET whisper)
    return()
endif()
set(MOSSLY_WHISPER_SOURCE "${PROJECT_SOURCE_DIR}/node_modules/nodejs-whisper/cpp/whisper.cpp")
if(NOT EXISTS "${MOSSLY_WHISPER_SOURCE}/CMakeLists.txt")
    message(FATAL_ERROR "whisper.cpp is missing: run scripts/npm-packages first")
endif()
# Its cmake_minimum_required(3.5) ignores plain variables for options (CMP0077), so force them.
set(BUILD_SHARED_LIBS OFF CACHE BOOL "" FORCE)
set(WHISPER_BUILD_EXAMPLES OFF CACHE BOOL "" FORCE)
set(WHISPER_BUILD_TESTS OFF CACHE BOOL "" FORCE)
set(WHISPER_BUILD_SERVER OFF CACHE BOOL "" FORCE)
set(GGML_NATIVE OFF CACHE BOOL "" FORCE)
set(GGML_OPENMP ON CACHE BOOL "" FORCE)
add_subdirectory("${MOSSLY_WHISPER_SOURCE}" "${PROJECT_BINARY_DIR}/whisper.cpp" EXCLUDE_FROM_ALL SYSTEM)
