# Reading and writing the variables over KTC: Qt-free, shared by the controller and the
# command line so that both read, assemble and write the same way.
add_library(varkel_io STATIC ${CMAKE_CURRENT_SOURCE_DIR}/src/variable_io.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/value_text.cpp)
target_include_directories(varkel_io PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_link_libraries(varkel_io PUBLIC varkel_config quarn_ktc)
varkel_warnings(varkel_io)
