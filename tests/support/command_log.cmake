# Preloaded by tests into one program, notes the command lines that it gives to the shell. It is never
# built with the sanitizers, so that it can be preloaded into programs that are and into programs that
# are not.
add_library(command_log SHARED ${CMAKE_CURRENT_LIST_DIR}/command_log.cpp)
target_compile_features(command_log PRIVATE cxx_std_20)
target_compile_options(command_log PRIVATE
  "$<FILTER:$<TARGET_PROPERTY:corvik_flags,INTERFACE_COMPILE_OPTIONS>,EXCLUDE,^(-fsanitize|-fno-sanitize|--coverage|-fprofile)>")
target_link_libraries(command_log PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(command_log PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
