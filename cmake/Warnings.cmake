# Project-wide warnings for our own targets; call varkel_warnings(target).
function(varkel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-unused-parameter)
endfunction()
