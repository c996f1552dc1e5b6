# ZELTA_SANITIZE=address,undefined or ZELTA_SANITIZE=thread applies the sanitizers to
# every target of the build, the library and its tests alike.
if(ZELTA_SANITIZE)
  if(ZELTA_SANITIZE MATCHES "thread" AND ZELTA_SANITIZE MATCHES "address")
    message(FATAL_ERROR "ZELTA_SANITIZE: thread cannot be combined with address")
  endif()
  message(STATUS "zelta: building with -fsanitize=${ZELTA_SANITIZE}")
  add_compile_options(-fsanitize=${ZELTA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZELTA_SANITIZE})
endif()
