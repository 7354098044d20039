# The windows themselves, without a screen.
find_package(GTest REQUIRED)
include(GoogleTest)

add_executable(qt_windows_test
  ${CMAKE_SOURCE_DIR}/tests/qt_windows_test.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/qt_sanitizer_options.cpp)
target_link_libraries(qt_windows_test PRIVATE qm5_qt GTest::gtest_main)
add_dependencies(qt_windows_test qm5_resources)
gtest_discover_tests(qt_windows_test
  DISCOVERY_MODE PRE_TEST
  PROPERTIES ENVIRONMENT QT_QPA_PLATFORM=offscreen)
