// Runs the tests and ends the process at once, as the application does: threads that serve
// the bus are still at work. What is left in the folder for temporary files goes then.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Test beds that no destructor removes are in there. Death tests share their parent's folder.
  const char* const parents = std::getenv("QM5_TEST_FOLDER");
  std::string folder = std::filesystem::temp_directory_path() / "qm5-test-XXXXXX";
  if (parents == nullptr && mkdtemp(folder.data()) != nullptr) {
    setenv("QM5_TEST_FOLDER", folder.c_str(), 1);
    setenv("TMPDIR", folder.c_str(), 1);
  }
  const int status = RUN_ALL_TESTS();
  std::fflush(nullptr);
  std::error_code error;
  if (parents == nullptr) std::filesystem::remove_all(folder, error);
  std::_Exit(status);
}
