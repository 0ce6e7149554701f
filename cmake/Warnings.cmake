# One warning policy for every target of the project.
function(ostpmc_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wno-format-nonliteral
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
  if(OSTPMC_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
