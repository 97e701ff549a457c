# Compiler warnings and sanitizers shared by every target of the project.
add_library(corvane_options INTERFACE)
target_compile_options(corvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wno-missing-field-initializers)
if(CORVANE_WERROR)
  target_compile_options(corvane_options INTERFACE -Werror)
endif()
# GCC 12 at -O3 reports a false -Wrestrict inside libstdc++'s std::string::_M_replace once it
# is inlined into `"text" + std::string(...)` (operator+(const char*, string&&) -> insert ->
# _M_replace; GCC bugs 105329 and 105651): it claims a memcpy of more than 2^63 bytes may
# overlap itself, on a path that cannot run. Only that warning, only GCC 12, only the -O3
# (Release) configuration; every other warning stays an error.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(corvane_options INTERFACE $<$<CONFIG:Release>:-Wno-restrict>)
endif()
# Clang checks the lock annotations of thread_annotations.h: state read or written without the
# mutex that guards it, a helper called without the lock it requires, locks taken out of order.
if(CORVANE_THREAD_SAFETY)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "CORVANE_THREAD_SAFETY needs clang (the thread-safety preset sets it)")
  endif()
  target_compile_options(corvane_options INTERFACE -Wthread-safety)
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
