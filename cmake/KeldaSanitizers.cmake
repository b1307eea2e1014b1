# Sanitizer and fuzzing builds.
#
# KELDA_SANITIZE=address   AddressSanitizer with UndefinedBehaviorSanitizer;
#                          any undefined behaviour aborts the program, so a
#                          test that meets one fails.
# KELDA_SANITIZE=thread    ThreadSanitizer; see tsan.supp for what is ignored.
# KELDA_FUZZ=ON            libFuzzer targets (clang only); the code under test
#                          is instrumented for coverage.

set(KELDA_SANITIZE "" CACHE STRING "Sanitizer build: address, thread or empty")
set_property(CACHE KELDA_SANITIZE PROPERTY STRINGS "" address thread)
option(KELDA_FUZZ "Build the libFuzzer targets (clang only)" OFF)

if(KELDA_SANITIZE STREQUAL "address")
    set(_kelda_sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined)
elseif(KELDA_SANITIZE STREQUAL "thread")
    set(_kelda_sanitize_flags -fsanitize=thread)
elseif(NOT KELDA_SANITIZE STREQUAL "")
    message(FATAL_ERROR "KELDA_SANITIZE must be address, thread or empty, not '${KELDA_SANITIZE}'")
endif()

if(_kelda_sanitize_flags)
    add_compile_options(${_kelda_sanitize_flags} -fno-omit-frame-pointer)
    add_link_options(${_kelda_sanitize_flags})
endif()
# What a program linking our instrumented libraries needs on its link line
# (the installed package's consumer test uses it).
set(KELDA_SANITIZER_LINK_FLAGS "${_kelda_sanitize_flags}")

if(KELDA_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "KELDA_FUZZ needs clang (libFuzzer); configure with CMAKE_CXX_COMPILER=clang++")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
    list(APPEND KELDA_SANITIZER_LINK_FLAGS -fsanitize=fuzzer-no-link)
endif()
