# Warnings for our own targets only (applied PRIVATE), as errors.
function(zelta_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Werror
    -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
    -Wformat=2 -Wimplicit-fallthrough -Wmissing-declarations)
  # Clang checks the lock annotations (base/thread_annotations.h): a field
  # touched without the lock that guards it, or a *_nolock function called
  # without it, fails the build, whatever else -Werror is given.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety -Wthread-safety-beta -Werror=thread-safety
                                             -Werror=thread-safety-beta)
  endif()
  # Keep __FILE__ relative so trace markers and assertion texts do not depend on
  # where the tree was checked out.
  target_compile_options(${target} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()
