# Compiler settings that every target of the project shares: language level, warnings, sanitizers.
# C++20 inside (__VA_OPT__ in the log macros); the public headers are held to C++17 by tests/api.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(zorv_warnings INTERFACE)
target_compile_options(zorv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wformat=2)
if(ZORV_WERROR)
  target_compile_options(zorv_warnings INTERFACE -Werror)
endif()

if(ZORV_SANITIZE)
  add_compile_options(-fsanitize=${ZORV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZORV_SANITIZE})
endif()
