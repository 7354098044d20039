// Packaged image files that are missing, unreadable or large, read from the disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "computer/package/file_package.h"

namespace qm5::test {
namespace {

constexpr const char* kPath = "image.bin";

struct ImageFile {
  void (*make)();
  std::string_view error;
};
// Root too gets an error from a link to itself, and from the start of its own memory.
const ImageFile kUnreadable[] = {
    {[] {}, "No such file or directory"},
    {[] { std::filesystem::create_directory(kPath); }, "Is a directory"},
    {[] { mkfifo(kPath, 0600); }, "Not a regular file"},
    {[] { std::filesystem::create_symlink(kPath, kPath); }, "Too many levels of symbolic links"},
    {[] { std::filesystem::create_symlink("/proc/self/mem", kPath); }, "Input/output error"}};

TEST(ImageFile, IsReadToItsEndOrTellsWhyNot) {
  std::string folder = std::filesystem::temp_directory_path() / "qm5-package-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  std::filesystem::current_path(folder);
  for (const auto& [make, error] : kUnreadable) {
    make();
    const FileContents contents = FilePackage().readFile(kPath);
    EXPECT_EQ(std::get<FileError>(contents).description, error);
    std::filesystem::remove(kPath);
  }
  constexpr std::size_t kSize = (std::size_t{64} << 20) + 1;
  std::ofstream(kPath).seekp(kSize - 1).put('e');
  const FileContents contents = FilePackage().readFile(kPath);
  EXPECT_EQ(std::get<Bytes>(contents).size(), kSize);
  EXPECT_EQ(std::get<Bytes>(contents).back(), 'e');
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace qm5::test
