# Warnings are errors for our own code only; third-party headers come in
# through imported targets and are treated as system headers.
function(kv_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wvla
    -Werror)
endfunction()
