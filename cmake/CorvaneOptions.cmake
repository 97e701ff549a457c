# Compiler warnings and sanitizers shared by every target of the project.
add_library(corvane_options INTERFACE)
target_compile_options(corvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wno-missing-field-initializers)
if(CORVANE_WERROR)
  target_compile_options(corvane_options INTERFACE -Werror)
endif()
if(CORVANE_SANITIZE)
  target_compile_options(corvane_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(corvane_options INTERFACE -fsanitize=address,undefined)
endif()
if(CORVANE_TSAN)
  target_compile_options(corvane_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(corvane_options INTERFACE -fsanitize=thread)
endif()
