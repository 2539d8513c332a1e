# Warnings as errors on our own targets only; sanitizers for the asan preset.
function(tk_hygiene target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-error=deprecated-declarations)
  if(TK_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                                             -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()
