# The controller the user interface talks to: the only Qt-aware layer below the UI.
find_package(Qt5 5.15 REQUIRED COMPONENTS Core Charts)

add_library(VarkelCore STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager.h
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_host.h
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_model.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_connection.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_tls.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_reading.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_writing.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_range.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_console.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_maintenance.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_small_sensor.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_upgrade.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_stream.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/stream_monitor_model.h
  ${CMAKE_CURRENT_SOURCE_DIR}/src/stream_monitor_model.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/varkel_manager_journal.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/journal_history.h
  ${CMAKE_CURRENT_SOURCE_DIR}/src/journal_history.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/monitor_model.h
  ${CMAKE_CURRENT_SOURCE_DIR}/src/monitor_model.cpp)
set_target_properties(VarkelCore PROPERTIES AUTOMOC ON)
target_include_directories(VarkelCore PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_link_libraries(VarkelCore PUBLIC Qt5::Core Qt5::Charts quarn_monitor varkel_config varkel_io quarn_ktc quarn_source log_lib)
varkel_warnings(VarkelCore)
