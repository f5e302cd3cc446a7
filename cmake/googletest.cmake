# GoogleTest: Debian's libgtest-dev for the development machine. A build for
# the board has no GoogleTest of its own target, so it compiles the sources
# that libgtest-dev ships in /usr/src/googletest.
find_package(GTest QUIET)
if(NOT GTest_FOUND)
  if(NOT EXISTS /usr/src/googletest/googletest/CMakeLists.txt)
    message(FATAL_ERROR "GoogleTest not found: install libgtest-dev, or configure with -DUPDATER_TESTS=OFF")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(library gtest gtest_main)
    if(NOT TARGET GTest::${library})
      add_library(GTest::${library} ALIAS ${library})
    endif()
  endforeach()
endif()
