# Tests of the software QM5, its bus and its image builder. One process shares one image,
# as making a key takes a while; it goes on in the mock environment by itself.
find_package(GTest REQUIRED)
include(GoogleTest)

add_executable(qm5-simulator-tests
  ${CMAKE_CURRENT_LIST_DIR}/simulator_script.cpp
  ${CMAKE_CURRENT_LIST_DIR}/simulator_main.cpp
  ${CMAKE_CURRENT_LIST_DIR}/simulator_model_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/simulator_faults_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/simulator_bus_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/simulator_program_test.cpp)
target_link_libraries(qm5-simulator-tests PRIVATE
  qm5_simulator_options qm5_firmware_image PkgConfig::LIBUSB GTest::gtest)
target_compile_definitions(qm5-simulator-tests PRIVATE
  QM5_SIMULATOR_PROGRAM="$<TARGET_FILE:qm5-simulator>")
add_dependencies(qm5-simulator-tests qm5-simulator)
add_test(NAME simulator COMMAND qm5-simulator-tests)
# The bus preloads a library, which the sanitizers have to be told is no mistake; what
# libraries without instrumentation do to each other is not theirs to judge.
set_tests_properties(simulator PROPERTIES ENVIRONMENT
  "ASAN_OPTIONS=verify_asan_link_order=0;TSAN_OPTIONS=ignore_noninstrumented_modules=1")
