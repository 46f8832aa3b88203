# Settings shared by every target of this project: language, build type, warnings, sanitizers, output folders.
#
# Warnings and sanitizers are carried by the interface target qx_options, which targets link privately inside
# BUILD_INTERFACE: nothing of it reaches a project that uses the installed package.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_SCAN_FOR_MODULES OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)

if(PROJECT_IS_TOP_LEVEL)
    set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
    set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
    set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
    if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
        set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
    endif()
    if(NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
        find_program(QX_CCACHE ccache)
        mark_as_advanced(QX_CCACHE)
        if(QX_CCACHE)
            set(CMAKE_CXX_COMPILER_LAUNCHER "${QX_CCACHE}")
        endif()
    endif()
endif()

add_library(qx_options INTERFACE)
target_compile_features(qx_options INTERFACE cxx_std_20)
target_compile_options(qx_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Part of clang's -Wconversion but not of g++'s: both shall find the same code good. Sizes are signed here, those of
    # the standard containers are not, so this one would ask for a cast at every index.
    target_compile_options(qx_options INTERFACE -Wno-sign-conversion)
endif()
if(QX_WERROR)
    target_compile_options(qx_options INTERFACE -Werror)
endif()

# The library calls its own exported functions directly: nobody may replace them at run time.
# Its thread-locals lie on the hot paths (locks, the current space); initial-exec makes an access two instructions.
# The library may still be loaded by dlopen: its few words of thread-local data fit the loader's static reserve.
set(QX_PRODUCT_COMPILE_OPTIONS -fno-semantic-interposition -ftls-model=initial-exec)

set(QX_TEST_TIMEOUT 60)          # seconds a test may take in a build without sanitizers
set(QX_SANITIZE_FLAGS "")
if(QX_SANITIZE STREQUAL "address")
    set(QX_SANITIZE_FLAGS -fsanitize=address,undefined)
elseif(QX_SANITIZE STREQUAL "thread")
    set(QX_SANITIZE_FLAGS -fsanitize=thread)
elseif(QX_SANITIZE STREQUAL "fuzzer")
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "QX_SANITIZE=fuzzer needs clang; use the preset 'fuzz'")
    endif()
    set(QX_SANITIZE_FLAGS -fsanitize=fuzzer-no-link,address,undefined)
elseif(QX_SANITIZE)
    message(FATAL_ERROR "QX_SANITIZE is '${QX_SANITIZE}'; it must be empty, address, thread or fuzzer")
endif()
if(QX_RECORD_LOCKS)
    target_compile_definitions(qx_options INTERFACE QX_RECORD_LOCKS)
endif()
if(QX_SANITIZE_FLAGS)
    list(APPEND QX_SANITIZE_FLAGS -fno-sanitize-recover=all)
    target_compile_options(qx_options INTERFACE ${QX_SANITIZE_FLAGS} -fno-omit-frame-pointer)
    target_link_options(qx_options INTERFACE ${QX_SANITIZE_FLAGS})
    set(QX_TEST_TIMEOUT 600)
endif()

# Counts how often each branch of the LSS is taken. In all code, since what headers define may be taken from any object
# file; but only what coverage.list names: counting in tests would take time and say nothing.
if(QX_COVERAGE)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "QX_COVERAGE needs clang; use the preset 'coverage'")
    endif()
    # Atomic: a count that threads lose would make a branch look as if it was taken.
    target_compile_options(qx_options INTERFACE -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic
        "-fprofile-list=${CMAKE_CURRENT_LIST_DIR}/coverage.list")
    target_link_options(qx_options INTERFACE -fprofile-instr-generate)
endif()
