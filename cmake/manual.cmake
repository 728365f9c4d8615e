# The manual, from one source (doc/manual.txt) and the settings table: the
# pages the administration serves (built into korvane_core as generated C++),
# plain HTML copies under <build>/doc/manual, and the man page
# <build>/doc/korvane.ini.5 (target korvane_man, which installers use).
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(_man_script ${CMAKE_SOURCE_DIR}/doc/mkmanual.py)
set(_man_deps ${_man_script} ${CMAKE_SOURCE_DIR}/doc/manual.txt ${CMAKE_SOURCE_DIR}/server/settings/ini_table.cpp)
set(_man_args --table ${CMAKE_SOURCE_DIR}/server/settings/ini_table.cpp --source ${CMAKE_SOURCE_DIR}/doc/manual.txt)
set(KORV_MANUAL_SOURCE ${CMAKE_BINARY_DIR}/generated/manual_data.cpp)
set(KORV_MAN_PAGE ${CMAKE_BINARY_DIR}/doc/korvane.ini.5)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/generated ${CMAKE_BINARY_DIR}/doc)
add_custom_command(OUTPUT ${KORV_MANUAL_SOURCE}
                   COMMAND ${Python3_EXECUTABLE} ${_man_script} ${_man_args} --cpp ${KORV_MANUAL_SOURCE}
                   DEPENDS ${_man_deps}
                   COMMENT "Manual pages from doc/manual.txt")
add_custom_command(OUTPUT ${KORV_MAN_PAGE}
                   COMMAND ${Python3_EXECUTABLE} ${_man_script} ${_man_args} --man ${KORV_MAN_PAGE}
                           --html ${CMAKE_BINARY_DIR}/doc/manual
                   DEPENDS ${_man_deps}
                   COMMENT "korvane.ini(5) from doc/manual.txt")
add_custom_target(korvane_man ALL DEPENDS ${KORV_MAN_PAGE})
