# Formatting is part of the build's checks: every C and C++ source must be as clang-format
# leaves it.
find_program(CLANG_FORMAT_EXECUTABLE NAMES clang-format clang-format-14)
if(CLANG_FORMAT_EXECUTABLE)
  file(GLOB_RECURSE ostpmc_format_sources CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/app/*.cpp ${PROJECT_SOURCE_DIR}/app/*.h
    ${PROJECT_SOURCE_DIR}/server/*.cpp ${PROJECT_SOURCE_DIR}/server/*.h
    ${PROJECT_SOURCE_DIR}/client/*.cpp ${PROJECT_SOURCE_DIR}/client/*.h
    ${PROJECT_SOURCE_DIR}/records/*.cpp ${PROJECT_SOURCE_DIR}/records/*.h
    ${PROJECT_SOURCE_DIR}/ptpmgmt/*.cpp ${PROJECT_SOURCE_DIR}/ptpmgmt/*.h
    ${PROJECT_SOURCE_DIR}/control/*.cpp ${PROJECT_SOURCE_DIR}/control/*.h
    ${PROJECT_SOURCE_DIR}/monitor/*.cpp ${PROJECT_SOURCE_DIR}/monitor/*.h
    ${PROJECT_SOURCE_DIR}/platform/*.cpp ${PROJECT_SOURCE_DIR}/platform/*.h
    ${PROJECT_SOURCE_DIR}/tools/*.cpp ${PROJECT_SOURCE_DIR}/tools/*.h
    ${PROJECT_SOURCE_DIR}/testbed/*.cpp ${PROJECT_SOURCE_DIR}/testbed/*.h
    ${PROJECT_SOURCE_DIR}/testbed/*.c
    ${PROJECT_SOURCE_DIR}/tests/*.cpp ${PROJECT_SOURCE_DIR}/tests/*.h ${PROJECT_SOURCE_DIR}/tests/*.c
    ${PROJECT_SOURCE_DIR}/bench/*.cpp ${PROJECT_SOURCE_DIR}/fuzz/*.cpp ${PROJECT_SOURCE_DIR}/fuzz/*.h)
  add_test(NAME clang_format
    COMMAND ${CLANG_FORMAT_EXECUTABLE} --dry-run --Werror ${ostpmc_format_sources})
  set_tests_properties(clang_format PROPERTIES LABELS unit)
endif()
