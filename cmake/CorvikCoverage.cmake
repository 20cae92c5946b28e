# Counters for lines and branches, as clang knows them from the source. They stand in a file that every run
# of a program maps, so that nothing is lost of a run that is killed, aborts or becomes another program.
# Many runs count in one file at once, and how often a condition was false is a difference of two counts:
# no count may be lost.
if(CORVIK_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "CORVIK_COVERAGE needs clang++")
  endif()
  # Only the tool is counted, not the programs and tests around it; its headers also where they are included.
  set(counted ${PROJECT_BINARY_DIR}/counted_sources.list)
  set(patterns "")
  foreach(room main connections platform common)
    string(APPEND patterns "src:${PROJECT_SOURCE_DIR}/${room}/*\n")
  endforeach()
  file(CONFIGURE OUTPUT ${counted} CONTENT "${patterns}" @ONLY)
  target_compile_options(corvik_core PUBLIC
    -fprofile-instr-generate=${PROJECT_BINARY_DIR}/counters/%c%m.profraw -fcoverage-mapping
    -fprofile-update=atomic -fprofile-list=${counted} "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(corvik_core PUBLIC -fprofile-instr-generate)
endif()
