# GoogleTest, as GTest::gtest and GTest::gtest_main, and CMake's module of the same name. A cross
# build cannot use the one that is installed: it builds its own from the sources that Debian's
# package googletest brings.
include(GoogleTest)

if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest REQUIRED)
  return()
endif()
# Programs that a test starts run as the test does. The loader of build/mac/run sees to that itself.
if(CMAKE_CROSSCOMPILING_EMULATOR AND NOT APPLE)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " KELTO_RUN_PREFIX)
endif()
if(TARGET GTest::gtest)
  return()
endif()

set(KELTO_GOOGLETEST_DIR /usr/src/googletest/googletest CACHE PATH
  "GoogleTest's sources, for cross builds")

# Its own project asks for a C compiler, which the cross build has no use for.
function(kelto_googletest_library name)
  add_library(${name} STATIC ${KELTO_GOOGLETEST_DIR}/src/${ARGV1})
  add_library(GTest::${name} ALIAS ${name})
  target_include_directories(${name} SYSTEM PUBLIC ${KELTO_GOOGLETEST_DIR}/include)
  target_include_directories(${name} PRIVATE ${KELTO_GOOGLETEST_DIR})
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_compile_options(${name} PRIVATE -w)
endfunction()
kelto_googletest_library(gtest gtest-all.cc)
kelto_googletest_library(gtest_main gtest_main.cc)
target_link_libraries(gtest PUBLIC Threads::Threads)
target_link_libraries(gtest_main PUBLIC gtest)

if(KELTO_RUN_PREFIX)
  target_sources(gtest PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/Emulator.cpp)
  target_compile_definitions(gtest PRIVATE KELTO_RUN_PREFIX="${KELTO_RUN_PREFIX}")
endif()
