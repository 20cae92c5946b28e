# Language level, warnings and hardening shared by every target of the project: link to corvik_flags.
add_library(corvik_flags INTERFACE)
target_compile_features(corvik_flags INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

target_include_directories(corvik_flags INTERFACE ${PROJECT_SOURCE_DIR})
# Names of source files inside the programs are relative to the tree, so two builds give the same bytes.
target_compile_options(corvik_flags INTERFACE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

target_compile_options(corvik_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual -Wformat=2 -Wimplicit-fallthrough
  -Wdouble-promotion -Wundef -Wunused
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast>)
# This compiler sees overlapping copies in std::string where there are none.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(corvik_flags INTERFACE -Wno-restrict)
endif()
if(CORVIK_STRICT)
  target_compile_options(corvik_flags INTERFACE -Werror)
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT CORVIK_SANITIZE AND NOT CORVIK_COVERAGE)
  target_compile_options(corvik_flags INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS
    -fstack-protector-strong -fstack-clash-protection)
  target_link_options(corvik_flags INTERFACE -Wl,-z,relro,-z,now)
endif()

if(CORVIK_SANITIZE)
  target_compile_options(corvik_flags INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(corvik_flags INTERFACE -fsanitize=address,undefined)
endif()
