# SPDX-License-Identifier: MIT

# e1212_add_plugin(<target> SOURCES ...): a Qt plug-in module placed in the build tree's plugins/.
function(e1212_add_plugin target)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${target} MODULE ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE e1212_warnings ${ARG_LIBRARIES})
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${E1212_PLUGIN_OUTPUT_DIR}
    INSTALL_RPATH "$ORIGIN/../.."
    PREFIX "lib")
endfunction()

# e1212_add_test(<name> SOURCES ... LIBRARIES ...): a Qt Test executable run by ctest.
function(e1212_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE e1212_warnings Qt5::Test ${ARG_LIBRARIES})
  target_compile_definitions(${name} PRIVATE
    E1212_PLUGIN_DIR="${E1212_PLUGIN_OUTPUT_DIR}"
    E1212_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    E1212_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;${ARG_ENVIRONMENT}")
endfunction()

# e1212_versioned_library(<target>): a shared library of ours with a versioned SONAME
# (lib<name>.so.<major>), installed in lib/.
function(e1212_versioned_library target)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${target} LIBRARY DESTINATION ${E1212_INSTALL_LIBDIR} NAMELINK_SKIP)
endfunction()
