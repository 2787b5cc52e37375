# Our own code is built with a broad warning set. Turning warnings into errors
# is the project's gate (CMake presets and CI set KV_WERROR); it is off by
# default so that a consumer building the library with another compiler
# version is never broken by a new warning.
option(KV_WERROR "Treat warnings as errors in the project's own targets" OFF)

function(kv_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wvla
    $<$<BOOL:${KV_WERROR}>:-Werror>)
endfunction()
