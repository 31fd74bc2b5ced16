varkel_add_gtest(varkel_config_tests
  SOURCES
    ${CMAKE_CURRENT_SOURCE_DIR}/config/csv_reader_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/config/str_parser_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/config/config_parser_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/config/model_tables_test.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/config/marvo_package_test.cpp
  LIBS varkel_config)
