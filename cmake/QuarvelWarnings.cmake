# Warnings apply to our own targets only (they link quarvel_warnings), never to dependencies.
add_library(quarvel_warnings INTERFACE)
target_compile_options(quarvel_warnings INTERFACE -Wall -Wextra -Wshadow -Wpedantic -Wconversion -Wsign-conversion)
if(QUARVEL_WERROR)
  target_compile_options(quarvel_warnings INTERFACE -Werror)
endif()
