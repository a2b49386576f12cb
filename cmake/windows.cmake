# The Windows build, included by the top-level CMakeLists.txt in place of
# the Linux one: the library from src/ and src/win32/, every suite, and a
# smoke suite that proves the toolchain and the test driver on their own.
# Cross-built with cmake/mingw-w64.cmake and run under Wine: scripts/test --windows.

# The platform layer's sources.
file(GLOB PLEXA_WIN32_SOURCES CONFIGURE_DEPENDS src/win32/*.cpp)
file(GLOB PLEXA_PORTABLE_SOURCES CONFIGURE_DEPENDS src/*.cpp)

find_package(ZLIB REQUIRED)

# TinyXML has no MinGW-w64 package: it is built from its sources (Debian's,
# unpacked by scripts/deb-source) the way Debian builds it, with the STL.
set(PLEXA_TINYXML_SOURCE_DIR "" CACHE PATH "TinyXML 2.6 sources, built for the target")
if(NOT EXISTS "${PLEXA_TINYXML_SOURCE_DIR}/tinyxml.h")
  message(FATAL_ERROR "PLEXA_TINYXML_SOURCE_DIR must name TinyXML 2.6 sources "
    "(scripts/deb-source tinyxml DIR unpacks Debian's)")
endif()
set(PLEXA_TINYXML_SOURCES tinyxml.cpp tinystr.cpp tinyxmlerror.cpp tinyxmlparser.cpp)
list(TRANSFORM PLEXA_TINYXML_SOURCES PREPEND "${PLEXA_TINYXML_SOURCE_DIR}/")
add_library(tinyxml STATIC ${PLEXA_TINYXML_SOURCES})
target_compile_definitions(tinyxml PUBLIC TIXML_USE_STL)
target_include_directories(tinyxml SYSTEM PUBLIC "${PLEXA_TINYXML_SOURCE_DIR}")

# Programs and the DLL side by side, where Windows looks for a program's DLLs.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_library(plexa SHARED ${PLEXA_PORTABLE_SOURCES} ${PLEXA_WIN32_SOURCES})
target_compile_features(plexa PUBLIC cxx_std_17)
target_compile_definitions(plexa PRIVATE PLEXA_BUILDING PLEXA_VERSION_STRING="${PROJECT_VERSION}")
target_include_directories(plexa PUBLIC include PRIVATE src src/win32)
target_link_libraries(plexa PRIVATE tinyxml ZLIB::ZLIB ws2_32 mswsock iphlpapi bcrypt
  crypt32 ntdll)

if(PLEXA_BUILD_TESTS)
  # GoogleTest built with the target's compiler from its sources (Debian's
  # googletest package when cross-building), or an installed one.
  set(PLEXA_GTEST_SOURCE_DIR "" CACHE PATH "GoogleTest sources, built for the target")
  if(PLEXA_GTEST_SOURCE_DIR)
    set(BUILD_GMOCK OFF)
    set(INSTALL_GTEST OFF)
    # With MSVC, the DLL runtime that everything else links.
    set(gtest_force_shared_crt ON)
    add_subdirectory("${PLEXA_GTEST_SOURCE_DIR}" googletest EXCLUDE_FROM_ALL)
  else()
    find_package(GTest REQUIRED)
  endif()
  enable_testing()
  include(GoogleTest)

  # Tests are listed when ctest runs (PRE_TEST), so the build never starts
  # Wine. A suite passes only if it exits 0 and printed no failed check.
  function(plexa_windows_tests target)
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT 120 FAIL_REGULAR_EXPRESSION "\\[  FAILED  \\]")
  endfunction()

  add_subdirectory(tests/windows-smoke)

  # The suites that build and pass for Windows so far. The reactor manager's
  # own suite follows.
  set(PLEXA_WINDOWS_SUITES async-io blocking-device byte-buffer data-dispatcher data-sender device
    digest dll-loader entity-device-handler entity-map error getopt http-request logger memory-pool
    message-queue pack process reactor reactor-mgr signal singleton socket string tcp-acceptor
    thread thread-lock timer trans-message utils xml-config)
  foreach(suite ${PLEXA_WINDOWS_SUITES})
    add_executable(test-${suite} tests/test-${suite}.cpp)
    target_include_directories(test-${suite} PRIVATE tests src)
    target_link_libraries(test-${suite} PRIVATE plexa GTest::gtest GTest::gtest_main ZLIB::ZLIB ws2_32)
    plexa_windows_tests(test-${suite})
  endforeach()
  # A DLL for test-dll-loader to load, beside the programs: Windows looks
  # there first for a bare name.
  add_library(plexa-test-plugin MODULE tests/plugin/test-plugin.cpp)
  set_target_properties(plexa-test-plugin PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
  add_dependencies(test-dll-loader plexa-test-plugin)
  target_compile_definitions(test-dll-loader PRIVATE
    PLEXA_TEST_PLUGIN="$<TARGET_FILE_NAME:plexa-test-plugin>")
  # The README's error table is checked against the catalogue.
  target_compile_definitions(test-error PRIVATE PLEXA_README="${CMAKE_SOURCE_DIR}/README.md")
endif()
