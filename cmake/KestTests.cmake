# Every tests/**/*_test.cpp is one test program and one CTest test named after its path.
if(CMAKE_CROSSCOMPILING)
  # The cross build compiles GoogleTest from the sources Debian ships.
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  set(KEST_GTEST_LIBS GTest::gtest GTest::gmock)
  set(KEST_GTEST_MAIN GTest::gtest_main)
else()
  find_package(GTest REQUIRED)
  set(KEST_GTEST_LIBS GTest::gtest GTest::gmock)
  set(KEST_GTEST_MAIN GTest::gtest_main)
endif()

file(GLOB_RECURSE KEST_TEST_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/*_test.cpp)
list(FILTER KEST_TEST_SOURCES EXCLUDE REGEX "/tests/fuzz/")
file(GLOB_RECURSE KEST_TEST_SUPPORT CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
if(KEST_TEST_SUPPORT)
  add_library(kest_test_support STATIC ${KEST_TEST_SUPPORT})
  target_include_directories(kest_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(kest_test_support PUBLIC kest_client_core kest_refserver_core kest_kernel kest_utils ${KEST_GTEST_LIBS})
endif()

# GCC 12 at -O3 reports -Wrestrict inside libstdc++ for "text" + std::string temporaries, which
# test code builds everywhere; a false positive of the compiler, so tests do without it there.
# (The programs' own sources are kept free of the pattern instead.)
set(KEST_TEST_OPTIONS)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND KEST_TEST_OPTIONS -Wno-restrict)
endif()

foreach(src IN LISTS KEST_TEST_SOURCES)
  file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR}/tests ${src})
  string(REGEX REPLACE "\\.cpp$" "" rel ${rel})
  string(REPLACE "/" "_" target ${rel})
  add_executable(${target} ${src})
  target_compile_options(${target} PRIVATE ${KEST_TEST_OPTIONS})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${target} PRIVATE kest_client_core kest_refserver_core kest_kernel kest_utils
                        ${KEST_LINE_EDIT_LIBS} ${KEST_GTEST_LIBS} ${KEST_GTEST_MAIN})
  if(TARGET kest_test_support)
    target_link_libraries(${target} PRIVATE kest_test_support)
  endif()
  target_compile_definitions(${target} PRIVATE
    KEST_CLIENT_BIN="$<TARGET_FILE:kest_client>"
    KEST_REFSERVER_BIN="$<TARGET_FILE:kest_refserver>"
    KEST_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
  add_dependencies(${target} kest_client kest_refserver)
  add_test(NAME ${rel} COMMAND ${target})
  set_tests_properties(${rel} PROPERTIES TIMEOUT 300 ENVIRONMENT "ZNLOG=;ZNLOG_CONFIGFILE=;ZNLOG_DIRECTORY=;USERPROFILE=")
endforeach()
