# What bench_processes.py runs on the simulated device, beside the tool itself.
foreach(library pugixml libxml2)
  add_executable(pipeline_${library} pipeline_${library}.cpp)
  target_link_libraries(pipeline_${library} PRIVATE corvik_flags)
  target_link_options(pipeline_${library} PRIVATE -static-libstdc++ -static-libgcc)  # as the tool
endforeach()
target_link_libraries(pipeline_pugixml PRIVATE pugixml::pugixml)
target_link_libraries(pipeline_libxml2 PRIVATE LibXml2::LibXml2)

# Starts as quickly as a program can.
add_executable(instant_regsh instant_regsh.cpp)
target_link_libraries(instant_regsh PRIVATE corvik_flags)
target_link_options(instant_regsh PRIVATE -static)
set_target_properties(instant_regsh PROPERTIES POSITION_INDEPENDENT_CODE OFF)

if(NOT TARGET command_log)
  include(${PROJECT_SOURCE_DIR}/tests/support/command_log.cmake)
endif()
