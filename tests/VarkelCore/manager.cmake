# The controller against the virtual lidar, in-process, on loopback and pseudo-terminals.
find_package(Qt5 5.15 REQUIRED COMPONENTS Core Test)
varkel_add_gtest(varkel_manager_tests
  SOURCES
    ${VARKEL_TEST_SUPPORT_DIR}/manager_test_support.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/value_text_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_object_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_connection_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_reading_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_writing_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_range_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_console_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/log_file_name_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_maintenance_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_small_sensor_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_upgrade_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_guard_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_small_upgrade_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/fault_matrix_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/impaired_link.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/network_fault_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/soak_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_stream_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/manager/manager_monitor_test.cpp
  LIBS VarkelCore varkel_sim Qt5::Core Qt5::Test)
# Timing-sensitive: repeated under load by `ctest -L timing` (docs/testing.md).
varkel_test_properties(varkel_manager_tests REGEX "(^|/)(ManagerUpgrade|ZeltoLinks|SmallUpgradeTest)[.]" LABELS timing)
# These load the machine or the network namespace heavily: never side by side.
varkel_test_properties(varkel_manager_tests REGEX "(^|/)(FaultMatrix|NetworkFault)[.]" LABELS timing
                       RESOURCE_LOCK heavy_io)
varkel_test_properties(varkel_manager_tests REGEX "^Soak[.]" RESOURCE_LOCK heavy_io COST 60)
varkel_test_properties(varkel_manager_tests REGEX "^NetworkFault[.]" COST 8)
