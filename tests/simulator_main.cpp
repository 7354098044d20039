// Runs the tests of the software QM5; as "update IMAGE" it is the program that the tests
// of qm5-simulator start.
#include <gtest/gtest.h>

#include <string_view>

#include "simulator/emulated_bus.h"
#include "tests/simulator_script.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "update") {
    return qm5::script::updateAttached(argv[2]);
  }
  qm5::EmulatedBus::enterMockEnvironment(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
