// Runs the tests and ends the process at once, as the application does: threads that serve
// the bus are still at work.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  std::fflush(nullptr);
  std::_Exit(status);
}
