# Warnings apply to our own targets only (they link quarvel_warnings), never to dependencies.
add_library(quarvel_warnings INTERFACE)
target_compile_options(quarvel_warnings INTERFACE -Wall -Wextra -Wshadow -Wpedantic -Wconversion -Wsign-conversion
  -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2)
if(QUARVEL_WERROR)
  target_compile_options(quarvel_warnings INTERFACE -Werror)
endif()
