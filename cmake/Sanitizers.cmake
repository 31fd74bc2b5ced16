# VARKEL_SANITIZE=address adds AddressSanitizer and UBSan; =thread adds ThreadSanitizer.
# VARKEL_FUZZ instruments every target for coverage, AddressSanitizer and UBSan, so that
# the fuzzers see faults inside the library code, not only in their harness.
set_property(CACHE VARKEL_SANITIZE PROPERTY STRINGS none address thread)
if(VARKEL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "VARKEL_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(VARKEL_SANITIZE STREQUAL "thread")
    message(FATAL_ERROR "VARKEL_FUZZ goes with AddressSanitizer and UBSan, not ThreadSanitizer")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(VARKEL_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(VARKEL_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VARKEL_SANITIZE STREQUAL "none" AND NOT VARKEL_SANITIZE STREQUAL "OFF" AND NOT VARKEL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VARKEL_SANITIZE must be none, address or thread (got '${VARKEL_SANITIZE}')")
endif()
# Sanitizer reports need line tables only: -g1 builds them about a tenth faster than -g.
# -Og keeps the code close to the source the reports name and halves the sanitizer trees'
# compile time against -O2 (docs/testing.md); the normal build keeps its optimisation.
if(NOT VARKEL_FUZZ AND VARKEL_SANITIZE MATCHES "^(address|thread)$")
  add_compile_options(-Og -g1)
endif()
