# Project-wide warnings for our own targets; call varkel_warnings(target).
function(varkel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-unused-parameter)
endfunction()

# A unity build puts several files in one translation unit; a test fixture in one file's
# anonymous namespace then looks to the compiler like a type leaking out of another.
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-subobject-linkage)
endif()
