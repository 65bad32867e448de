# Sanitizer and fuzzing instrumentation for every target of the build.
#
#   -DVORLINK_SANITIZE=address,undefined   AddressSanitizer + UndefinedBehaviorSanitizer
#   -DVORLINK_SANITIZE=thread              ThreadSanitizer
#   -DVORLINK_BUILD_FUZZERS=ON             libFuzzer coverage on everything (clang only)
#
# Included before any target is made, so the flags reach the library, the
# Bytra stand-in, the tool, the tests and the fuzz targets alike. Qt and
# protobuf come from the system and are not instrumented.

set(VORLINK_SANITIZE "" CACHE STRING
    "Comma-separated sanitizers for all targets: address,undefined or thread (empty: none)")

set(_vorlink_instrumented OFF)

if(VORLINK_SANITIZE)
    string(REPLACE "," ";" _vorlink_sanitizers "${VORLINK_SANITIZE}")
    foreach(_s IN LISTS _vorlink_sanitizers)
        if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
            message(FATAL_ERROR "VORLINK_SANITIZE: unknown sanitizer '${_s}' (address, undefined, leak or thread)")
        endif()
    endforeach()
    if("thread" IN_LIST _vorlink_sanitizers AND "address" IN_LIST _vorlink_sanitizers)
        message(FATAL_ERROR "VORLINK_SANITIZE: thread and address cannot be combined; use two build trees")
    endif()

    add_compile_options(-fsanitize=${VORLINK_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VORLINK_SANITIZE})
    if("undefined" IN_LIST _vorlink_sanitizers)
        # A finding must fail the run, not scroll past in the log.
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    set(_vorlink_instrumented ON)
    message(STATUS "Sanitizers: ${VORLINK_SANITIZE}")
endif()

if(VORLINK_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "VORLINK_BUILD_FUZZERS needs clang (libFuzzer), e.g. -DCMAKE_CXX_COMPILER=clang++-14")
    endif()
    # Coverage feedback from the library itself, not only from the fuzz
    # targets; the targets add -fsanitize=fuzzer for libFuzzer's main.
    add_compile_options(-fsanitize=fuzzer-no-link)
    set(_vorlink_instrumented ON)
endif()

# clang links its sanitizer runtimes into executables only, so an instrumented
# shared library keeps undefined __asan_*/__tsan_*/__sanitizer_cov_* references
# that the executable resolves when it loads the library. The library's
# -Wl,--no-undefined would reject that link, so it is dropped in these builds
# (GCC links its shared runtimes into the library and needs nothing here).
if(_vorlink_instrumented AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    if(CMAKE_VERSION VERSION_LESS 3.19)
        message(FATAL_ERROR "Instrumented clang builds need CMake 3.19 or later")
    endif()
    function(_vorlink_allow_runtime_undefs)
        if(TARGET Vorlink)
            get_target_property(_opts Vorlink LINK_OPTIONS)
            if(_opts)
                list(REMOVE_ITEM _opts "-Wl,--no-undefined")
                set_target_properties(Vorlink PROPERTIES LINK_OPTIONS "${_opts}")
            endif()
        endif()
    endfunction()
    cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL _vorlink_allow_runtime_undefs)
endif()
