# One warning set for every target of the project, plus the sanitizer and fuzzer switches.
add_compile_options(-Wall -Wextra -Wshadow -Wmissing-declarations)
if(VLM_WERROR)
  add_compile_options(-Werror)
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
