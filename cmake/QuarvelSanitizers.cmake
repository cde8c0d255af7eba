# Sanitizers must cover every object of the process, the tests included, so they are global.
if(QUARVEL_SANITIZE)
  message(STATUS "Building with sanitizers: ${QUARVEL_SANITIZE}")
  add_compile_options(-fsanitize=${QUARVEL_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${QUARVEL_SANITIZE})
  if(QUARVEL_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
