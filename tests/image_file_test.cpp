// Packaged image files that are missing, unreadable or of an extreme size, read from the disk: the
// line at the start, the alert after Next, and how much is sent to the device.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "app_shell/package/file_package.h"
#include "firmware_image/firmware_image.h"
#include "simulator/device/faulty_qm5.h"
#include "support/effort.h"
#include "support/named_cases.h"
#include "support/whole_app.h"

namespace qm5::test {
namespace {

constexpr std::string_view kPath = "package.bin";

// The first `size` bytes of a good image; zeros follow.
template <std::size_t size>
void makeImage() {
  Bytes image = smallImage();
  image.resize(size);
  std::ofstream file(std::string(kPath), std::ios::binary);
  for (const auto byte : image) file.put(static_cast<char>(byte));
}

struct Package {
  std::string_view name;
  void (*make)();
  std::string_view line;     // at the start
  std::string_view alert;    // after Next
  std::size_t max_requests;  // to the device
};
QM5_PRINTS_NAME(Package)

constexpr std::string_view kDataError = "QM5 firmware update data error!";
constexpr std::string_view kFlashError = "Flash firmware error";

class Packaged : public testing::TestWithParam<Package> {
 protected:
  // Each test runs in a folder of its own.
  void SetUp() override {
    std::string folder = std::filesystem::temp_directory_path() / "qm5-package-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    std::filesystem::current_path(folder);
  }
  void TearDown() override { std::filesystem::remove_all(std::filesystem::current_path()); }
};

TEST_P(Packaged, HasItsLineAtTheStartAndItsAlertAfterNext) {
  GetParam().make();
  FaultyQm5 device;
  WholeApp app(smallImage());
  app.transcript.take();
  app.application.image_path = std::string(kPath);
  if (!std::filesystem::exists(std::filesystem::symlink_status(kPath)))
    app.application.image_path.reset();
  app.application.image = FilePackage().readFile(std::string(kPath));
  app.start();
  EXPECT_EQ(app.transcript.take(), Lines{"out: " + std::string(GetParam().line)});
  for (std::size_t round = 1; round <= 2; ++round) {
    app.bus.plug(device);
    EXPECT_EQ(app.update().told, GetParam().alert);
    EXPECT_LE(device.requestCount(), round * GetParam().max_requests);
  }
}

// Root too gets an error from a link to itself, and from the start of its own memory.
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
        // The signature belongs to another payload, so the device refuses these two.
        Package{"772 bytes", makeImage<772>, "Got data size:772", kFlashError, 200},
        Package{"64 MiB", makeImage<64 << 20>, "Got data size:67108864", kFlashError, 1'000'000}),
    named);

// A payload of less than one block has no percentage, which is a broken precondition.
TEST(PackagedDeathTest, WithAPayloadBelowOneBlockStopsTheProgram) {
  Bytes image = smallImage();
  image.resize(835);
  const auto update = [&image] {
    FaultyQm5 device;
    WholeApp app(image);
    app.bus.plug(device);
    app.update();
  };
  EXPECT_DEATH(update(), "fatal error: progress of less than one chunk");
}

}  // namespace
}  // namespace qm5::test
