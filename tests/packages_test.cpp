// Packages as they can go wrong, read from real files: what the program says at its start,
// what the person is told, and that nothing is sent that should not be.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "app_shell/qt/resource_files.h"
#include "simulator/faulty_qm5.h"
#include "support/effort.h"
#include "support/named_cases.h"
#include "support/whole_app.h"
#include "tools/firmware_image.h"

namespace qm5::test {
namespace {

constexpr std::string_view kPath = "package.bin";

// A good image, `size` bytes of it.
template <std::size_t size, std::size_t damaged_byte = SIZE_MAX>
void makeImage() {
  Bytes image = smallImage();
  image.resize(size);
  if (damaged_byte < size) image[damaged_byte] ^= 1;
  std::ofstream file(std::string(kPath), std::ios::binary);
  for (const auto byte : image) file.put(static_cast<char>(byte));
}

struct Package {
  std::string_view name;
  void (*make)();
  std::string_view line;      // at the start
  std::string_view told;      // after Next
  std::size_t requests_most;  // that may go to the device
};
QM5_PRINTS_NAME(Package)

constexpr std::string_view kDataError = "QM5 firmware update data error!";
constexpr std::string_view kFlashError = "Flash firmware error";

class Packaged : public testing::TestWithParam<Package> {
 protected:
  // Every test in a folder of its own.
  void SetUp() override {
    std::string folder = std::filesystem::temp_directory_path() / "qm5-package-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    std::filesystem::current_path(folder);
  }
  void TearDown() override { std::filesystem::remove_all(std::filesystem::current_path()); }
};

TEST_P(Packaged, IsRefusedInItsOwnWords) {
  GetParam().make();
  FaultyQm5 device;
  WholeApp app(smallImage());
  app.transcript.take();
  app.toolkit.image_path = std::string(kPath);
  if (!std::filesystem::exists(std::filesystem::symlink_status(kPath)))
    app.toolkit.image_path.reset();
  app.toolkit.image = readRegularFile(std::string(kPath));
  app.start();
  EXPECT_EQ(app.transcript.take(), Lines{"out: " + std::string(GetParam().line)});
  for (std::size_t round = 1; round <= 2; ++round) {
    app.bus.plug(device);
    EXPECT_EQ(app.update().told, GetParam().told);
    EXPECT_LE(device.requestCount(), round * GetParam().requests_most);
  }
}

// Even root gets errors from a link to itself, and from the start of its own memory.
INSTANTIATE_TEST_SUITE_P(
    Packages, Packaged,
    testing::Values(
        Package{"missing", [] {}, "No embedded file.", kDataError, 1},
        Package{"a directory", [] { std::filesystem::create_directory(kPath); },
                "Can not access file: Is a directory", kDataError, 1},
        Package{"a FIFO", [] { mkfifo(kPath.data(), 0600); },
                "Can not access file: Not a regular file", kDataError, 1},
        Package{"unopenable", [] { std::filesystem::create_symlink(kPath, kPath); },
                "Can not access file: Too many levels of symbolic links", kDataError, 1},
        Package{"unreadable", [] { std::filesystem::create_symlink("/proc/self/mem", kPath); },
                "Can not access file: Input/output error", kDataError, 1},
        Package{"empty", makeImage<0>, "Got data size:0", kFlashError, 1},
        Package{"771 bytes", makeImage<771>, "Got data size:771", kFlashError, 1},
        Package{"magic 0", makeImage<900, 0>, "Got data size:900", kFlashError, 1},
        Package{"magic 1", makeImage<900, 1>, "Got data size:900", kFlashError, 1},
        Package{"magic 2", makeImage<900, 2>, "Got data size:900", kFlashError, 1},
        Package{"magic 3", makeImage<900, 3>, "Got data size:900", kFlashError, 1},
        // Its signature is that of another payload: the device refuses it.
        Package{"772 bytes", makeImage<772>, "Got data size:772", kFlashError, 200},
        Package{"64 MiB", makeImage<64 << 20>, "Got data size:67108864", kFlashError, 1'000'000}),
    named);

// What is left of an image with less than one block of payload has no percentage: the one
// broken precondition that a package can reach.
TEST(PackagedDeathTest, WithAPayloadBelowOneBlockStopsTheProgram) {
  for (const std::size_t size : {773UL, 804UL, 835UL}) {
    EXPECT_DEATH(
        {
          Bytes image = smallImage();
          image.resize(size);
          FaultyQm5 device;
          WholeApp app(image);
          app.bus.plug(device);
          app.update();
        },
        "fatal error: progress of less than one chunk");
  }
}

}  // namespace
}  // namespace qm5::test
