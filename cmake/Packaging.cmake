# Debian packages (CPack DEB, one per program plus varkel-data) and what a package installs
# beside the programs: manual pages, shell completion, menu entry, icons, metadata, and the
# data under share/varkel. The package-only install rules are left out of a plain
# `cmake --install`, which keeps the build tree's layout.
set(VARKEL_RELEASE_DATE 2026-11-26)

find_package(Python3 COMPONENTS Interpreter)
find_program(VARKEL_GZIP gzip)
find_program(VARKEL_RSVG_CONVERT rsvg-convert)
set(_pkg ${CMAKE_BINARY_DIR}/package-files)
set(_src ${CMAKE_SOURCE_DIR}/packaging)
set(_outputs)

if(Python3_Interpreter_FOUND)
  execute_process(
    COMMAND ${Python3_EXECUTABLE} -c
            "import datetime,email.utils;d=datetime.datetime.fromisoformat('${VARKEL_RELEASE_DATE}').replace(tzinfo=datetime.timezone.utc);print(email.utils.format_datetime(d))"
    OUTPUT_VARIABLE VARKEL_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
configure_file(${_src}/changelog.in ${_pkg}/changelog @ONLY)
configure_file(${_src}/example.quarntech.Varkel.metainfo.xml.in ${_pkg}/example.quarntech.Varkel.metainfo.xml @ONLY)

# Manual pages, gzipped without a time stamp so packages build the same twice.
foreach(page varkel varkel-cli varkel-sim)
  if(NOT Python3_Interpreter_FOUND OR NOT VARKEL_GZIP)
    break()
  endif()
  string(TOUPPER ${page} _title)
  add_custom_command(
    OUTPUT ${_pkg}/man/${page}.1.gz
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/man_page.py ${CMAKE_SOURCE_DIR}/docs/man/${page}.1.md
            ${_pkg}/man/${page}.1 ${_title} 1 ${PROJECT_VERSION} ${VARKEL_RELEASE_DATE}
    COMMAND ${VARKEL_GZIP} -9nf ${_pkg}/man/${page}.1
    DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/${page}.1.md ${CMAKE_SOURCE_DIR}/scripts/man_page.py
    COMMENT "Manual page ${page}(1)")
  list(APPEND _outputs ${_pkg}/man/${page}.1.gz)
endforeach()
file(MAKE_DIRECTORY ${_pkg}/man ${_pkg}/completion)
if(VARKEL_GZIP)
  add_custom_command(
    OUTPUT ${_pkg}/changelog.gz
    COMMAND ${VARKEL_GZIP} -9nc ${_pkg}/changelog > ${_pkg}/changelog.gz
    DEPENDS ${_pkg}/changelog)
  list(APPEND _outputs ${_pkg}/changelog.gz)
endif()

# Completion scripts, written by the program itself from its own commands and options.
if(TARGET varkel-cli)
  add_custom_command(
    OUTPUT ${_pkg}/completion/varkel-cli ${_pkg}/completion/_varkel-cli
    COMMAND $<TARGET_FILE:varkel-cli> completion bash > ${_pkg}/completion/varkel-cli
    COMMAND $<TARGET_FILE:varkel-cli> completion zsh > ${_pkg}/completion/_varkel-cli
    DEPENDS varkel-cli
    COMMENT "Completion scripts of varkel-cli")
  list(APPEND _outputs ${_pkg}/completion/varkel-cli ${_pkg}/completion/_varkel-cli)
endif()

set(_icon_sizes 16 32 48 64 128 256)
if(VARKEL_RSVG_CONVERT)
  foreach(size ${_icon_sizes})
    add_custom_command(
      OUTPUT ${_pkg}/icons/${size}/varkel.png
      COMMAND ${CMAKE_COMMAND} -E make_directory ${_pkg}/icons/${size}
      COMMAND ${VARKEL_RSVG_CONVERT} -w ${size} -h ${size} -o ${_pkg}/icons/${size}/varkel.png ${_src}/varkel.svg
      DEPENDS ${_src}/varkel.svg)
    list(APPEND _outputs ${_pkg}/icons/${size}/varkel.png)
  endforeach()
else()
  message(STATUS "rsvg-convert not found: packages carry the SVG icon only (scripts/package.sh installs it)")
endif()
# Not part of every build: a sanitizer build could not run its own varkel-cli here, and
# only packaging needs these files (scripts/package.sh builds the target).
add_custom_target(varkel_package_files DEPENDS ${_outputs})

# The data: tables, images, and the fonts as relative links into fonts-roboto-unhinted.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/Config/ DESTINATION share/varkel/Config COMPONENT data EXCLUDE_FROM_ALL)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/png/ DESTINATION share/varkel/png COMPONENT data EXCLUDE_FROM_ALL)
foreach(pair "Roboto-Bold.ttf:Roboto-Bold-3.ttf" "Roboto-Regular.ttf:Roboto-Regular-14.ttf")
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 from)
  list(GET pair 1 to)
  file(MAKE_DIRECTORY ${_pkg}/fonts)
  file(CREATE_LINK ../../fonts/truetype/roboto/unhinted/RobotoTTF/${from} ${_pkg}/fonts/${to} SYMBOLIC)
  install(FILES ${_pkg}/fonts/${to} DESTINATION share/varkel/fonts COMPONENT data EXCLUDE_FROM_ALL)
endforeach()

# Every package carries its copyright and changelog.
set(_packages varkel varkel-cli varkel-sim varkel-data)
set(_components varkel cli sim data)
foreach(name comp IN ZIP_LISTS _packages _components)
  install(FILES ${_src}/copyright ${_pkg}/changelog.gz DESTINATION share/doc/${name} COMPONENT ${comp}
          EXCLUDE_FROM_ALL)
endforeach()

foreach(page comp IN ZIP_LISTS _packages _components)
  if(NOT page STREQUAL "varkel-data")
    install(FILES ${_pkg}/man/${page}.1.gz DESTINATION share/man/man1 COMPONENT ${comp} EXCLUDE_FROM_ALL)
  endif()
endforeach()
install(FILES ${_pkg}/completion/varkel-cli DESTINATION share/bash-completion/completions COMPONENT cli
        EXCLUDE_FROM_ALL)
install(FILES ${_pkg}/completion/_varkel-cli DESTINATION share/zsh/vendor-completions COMPONENT cli EXCLUDE_FROM_ALL)
install(FILES ${_src}/varkel.desktop DESTINATION share/applications COMPONENT varkel EXCLUDE_FROM_ALL)
install(FILES ${_pkg}/example.quarntech.Varkel.metainfo.xml DESTINATION share/metainfo COMPONENT varkel
        EXCLUDE_FROM_ALL)
install(FILES ${_src}/varkel.svg DESTINATION share/icons/hicolor/scalable/apps COMPONENT varkel EXCLUDE_FROM_ALL)
if(VARKEL_RSVG_CONVERT)
  foreach(size ${_icon_sizes})
    install(FILES ${_pkg}/icons/${size}/varkel.png DESTINATION share/icons/hicolor/${size}x${size}/apps
            COMPONENT varkel EXCLUDE_FROM_ALL)
  endforeach()
endif()

# CPack installs without building everything first: scripts/package.sh builds just the
# programs and the files above, so packaging never costs a second full build (tests,
# benchmarks). `cmake --install` likewise expects a built tree.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varkel)
set(CPACK_PACKAGE_VENDOR QuarnTech)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL varkel cli sim data)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Varkel developers <varkel@quarntech.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(_data "varkel-data (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_VARKEL_PACKAGE_NAME varkel)
set(CPACK_DEBIAN_VARKEL_PACKAGE_DEPENDS
    "${_data}, tar (>= 1.30), libqt5svg5, qml-module-qtquick2, qml-module-qtquick-controls, qml-module-qtquick-controls2, qml-module-qtquick-layouts, qml-module-qtquick-dialogs, qml-module-qtquick-window2")
set(CPACK_DEBIAN_VARKEL_PACKAGE_RECOMMENDS "varkel-cli, varkel-sim")
set(CPACK_DEBIAN_VARKEL_DESCRIPTION "inspect and configure a lidar sensor
Varkel is a desktop tool with which an engineer inspects and configures
a lidar sensor over TCP or TLS, over serial lines, or through a small
serial sensor. What a model can read and set comes from a table per
model. Around that: a raw command console, firmware upgrade, log
download, restart and reset.")

set(CPACK_DEBIAN_CLI_PACKAGE_NAME varkel-cli)
set(CPACK_DEBIAN_CLI_PACKAGE_DEPENDS "${_data}, tar (>= 1.30)")
# bash loads the completion script only through bash-completion.
set(CPACK_DEBIAN_CLI_PACKAGE_RECOMMENDS "bash-completion")
set(CPACK_DEBIAN_CLI_DESCRIPTION "lidar sensor configuration from a terminal
varkel-cli does the reading and writing of the Varkel window from a
terminal, for scripts and production lines: backup, set, diff, restore,
firmware upgrade, logs and network scans, with JSON output and bash and
zsh completion.")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME varkel-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS "${_data}")
set(CPACK_DEBIAN_SIM_DESCRIPTION "virtual lidar for trying Varkel without a sensor
varkel-sim answers the sensor's command protocol on TCP or TLS as a
sensor of the chosen model would, from the same model tables Varkel
reads; it can also open serial lines, stream datagrams and misbehave the
way broken sensors do.")

set(CPACK_DEBIAN_DATA_PACKAGE_NAME varkel-data)
set(CPACK_DEBIAN_DATA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DATA_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DATA_PACKAGE_DEPENDS "fonts-roboto-unhinted")
set(CPACK_DEBIAN_DATA_DESCRIPTION "model tables and images for Varkel
The per-model tables that say what each lidar model can read and set,
the images of the Varkel window, and links to the fonts it shows.
Varkel, varkel-cli and varkel-sim read them from /usr/share/varkel.")

include(CPack)
