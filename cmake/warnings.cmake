# One warning set for every target of the project, plus the sanitizer and fuzzer switches.
add_compile_options(-Wall -Wextra -Wshadow -Wmissing-declarations)
if(VLM_WERROR)
  add_compile_options(-Werror)
  # GCC 12 inlines the standard library's copies at -O2 and then warns, wrongly, that a string's
  # may overlap or a vector's pass its end (GCC bugs 105651, 106199, 107852): shown, not fatal.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
     AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options(-Wno-error=restrict -Wno-error=array-bounds -Wno-error=stringop-overflow)
  endif()
endif()

if(VLM_SANITIZE)
  set(_vlm_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${_vlm_san})
  add_link_options(${_vlm_san})
endif()

if(VLM_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "VLM_FUZZ needs clang (libFuzzer)")
  endif()
  # Every object is instrumented for coverage; only the fuzz executables link libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
