# Project-wide helpers: module libraries, DLLs and Wine-run tests.

set(LUMERA_WINE_ROOT ${CMAKE_BINARY_DIR}/wine)
set(LUMERA_TEST_BIN_DIR ${LUMERA_BIN_DIR}/tests)

# lumera_library(NAME [DIRS folders...] DEPS libs...)
# One static library per subsystem folder (plus the sub-folders named in DIRS), sources
# globbed so that parallel work never edits one list.
function(lumera_library name)
  cmake_parse_arguments(ARG "" "" "DIRS;DEPS" ${ARGN})
  if(NOT ARG_DIRS)
    set(ARG_DIRS .)
  endif()
  set(srcs)
  foreach(dir ${ARG_DIRS})
    file(GLOB dir_srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND srcs ${dir_srcs})
  endforeach()
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

# lumera_dll(NAME SOURCES ... DEF file LIBS ...): a Windows DLL in build/bin.
function(lumera_dll name)
  cmake_parse_arguments(ARG "" "DEF;OUTPUT_NAME" "SOURCES;LIBS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES} ${ARG_DEF})
  # Import libraries go to a folder per target: a test double may share a real DLL's name.
  set_target_properties(${name} PROPERTIES PREFIX "" ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib/${name})
  if(ARG_OUTPUT_NAME)
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ${ARG_OUTPUT_NAME})
  endif()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()

# lumera_test(NAME SOURCES ... LIBS ... [FLAVOURS win7 win10] [CAPTURE_LOG] [TIMEOUT s])
# Builds a GoogleTest program into build/bin/tests and registers one CTest test per Windows
# flavour, each run under Wine in its own prefix. CAPTURE_LOG puts the capturing logcore.dll
# beside the program so the module code it links logs into memory for assertions.
function(lumera_test name)
  cmake_parse_arguments(ARG "CAPTURE_LOG" "TIMEOUT" "SOURCES;LIBS;FLAVOURS;DEPENDS" ${ARGN})
  if(NOT ARG_FLAVOURS)
    set(ARG_FLAVOURS win7)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${LUMERA_TEST_BIN_DIR})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src
                             ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  if(TARGET lumera_testsupport)
    target_link_libraries(${name} PRIVATE lumera_testsupport)
  endif()
  if(ARG_CAPTURE_LOG AND TARGET capture_logcore)
    add_dependencies(${name} capture_logcore)
  endif()
  if(ARG_DEPENDS)
    add_dependencies(${name} ${ARG_DEPENDS})
  endif()
  foreach(flavour ${ARG_FLAVOURS})
    set(test_name ${name})
    list(LENGTH ARG_FLAVOURS n)
    if(n GREATER 1)
      set(test_name ${name}.${flavour})
    endif()
    add_test(NAME ${test_name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${test_name} PROPERTIES
      FIXTURES_REQUIRED wine
      TIMEOUT ${ARG_TIMEOUT}
      ENVIRONMENT "LUMERA_WINE_FLAVOUR=${flavour};LUMERA_WINE_ROOT=${LUMERA_WINE_ROOT}")
  endforeach()
endfunction()

# Adds every subfolder of the current folder that has a CMakeLists.txt.
function(lumera_add_subfolders)
  file(GLOB children LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(child ${children})
    if(IS_DIRECTORY ${child} AND EXISTS ${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()
