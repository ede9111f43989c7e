# pyrolink_add_test(NAME SOURCES... LIBS ... LABEL unit|gui|e2e)
# One QtTest executable per area; data paths come by compile definition.
function(pyrolink_add_test name)
  cmake_parse_arguments(T "" "LABEL" "SOURCES;LIBS" ${ARGN})
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE Qt6::Test ${T_LIBS})
  target_compile_definitions(${name} PRIVATE
    PYRO_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data"
    PYRO_DATA_DIR="${PROJECT_SOURCE_DIR}/data"
    PYRO_BIN_DIR="${PROJECT_BINARY_DIR}/bin")
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES
    LABELS ${T_LABEL}
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen"
    TIMEOUT 300)
endfunction()
