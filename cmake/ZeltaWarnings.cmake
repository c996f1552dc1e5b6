# Warnings for our own targets only (applied PRIVATE), as errors.
function(zelta_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Werror
    -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
    -Wformat=2 -Wimplicit-fallthrough -Wmissing-declarations)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  # Keep __FILE__ relative so trace markers and assertion texts do not depend on
  # where the tree was checked out.
  target_compile_options(${target} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()
