# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra)
if(NYX_WERROR)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # GCC's notes about the armhf parameter-passing ABI change are not warnings
  # about this code.
  add_compile_options(-Wno-psabi)
endif()
if(NYX_SANITIZE)
  add_compile_options(-fsanitize=${NYX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NYX_SANITIZE})
endif()
