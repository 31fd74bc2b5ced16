# Reading and writing the variables over KTC, the console's hexadecimal texts and the
# maintenance rows' commands: Qt-free, shared by the controller and the command line so
# that both read, assemble, write and send the same way.
add_library(varkel_io STATIC ${CMAKE_CURRENT_SOURCE_DIR}/src/variable_io.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/value_text.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/console_request.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/maintenance_command.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/manager_catalogue.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/log_file_name.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/change_journal.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/run_program.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/support_bundle.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/backup_file.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/monitor_plan.cpp)
target_include_directories(varkel_io PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_link_libraries(varkel_io PUBLIC varkel_config quarn_ktc)
varkel_warnings(varkel_io)
