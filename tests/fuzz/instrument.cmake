# Included by the top-level CMakeLists.txt when KELVO_FUZZ is on, before any
# library is defined: every library is built with coverage for libFuzzer and
# with the address and undefined-behaviour sanitizers.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "KELVO_FUZZ needs clang (CC=clang CXX=clang++)")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                    -fno-omit-frame-pointer -g)
add_link_options(-fsanitize=address,undefined)
