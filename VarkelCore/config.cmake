# The variable table and the value codecs: Qt-free, used by the controller, the virtual
# lidar and the tests.
find_library(VARKEL_CSV_LIBRARY NAMES csv REQUIRED)
find_path(VARKEL_CSV_INCLUDE_DIR NAMES csv.h REQUIRED)

add_library(varkel_config STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/src/number_text.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/csv_reader.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/config_parser.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/str_parser.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/src/marvo_package.cpp)
target_include_directories(varkel_config PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_compile_features(varkel_config PUBLIC cxx_std_17)
target_include_directories(varkel_config PRIVATE ${VARKEL_CSV_INCLUDE_DIR})
target_link_libraries(varkel_config PUBLIC log_lib PRIVATE ${VARKEL_CSV_LIBRARY})
varkel_warnings(varkel_config)
