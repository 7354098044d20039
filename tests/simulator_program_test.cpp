// qm5-simulator as a command: what it says and ends with.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/simulator_script.h"

namespace qm5 {
namespace {

struct Run {
  std::string name;
  std::string options;
  std::string program;  ///< empty: update with the image
  int status;
  std::string line;
};

class Simulator : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "qm5-simulator-XXXXXX";
    directory_ = mkdtemp(pattern.data());
    std::ofstream file(image(), std::ios::binary);
    for (const std::uint8_t byte : script::smallImage()) file.put(static_cast<char>(byte));
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string image() const { return directory_ / "image"; }
  std::string trace() const { return directory_ / "trace"; }

  /// What the command writes on standard output; `status_` is what it ends with.
  std::string run(const std::string& options, std::string program) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    if (program.empty()) program = self + " update " + image();
    const std::string command = "env -u LD_PRELOAD -u UMOCKDEV_DIR " QM5_SIMULATOR_PROGRAM
                                " --image " +
                                image() + " --trace " + trace() + " " + options + " -- " + program;
    FILE* const output = popen(command.c_str(), "r");
    std::string text;
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);
    status_ = WEXITSTATUS(pclose(output));
    return text;
  }

  std::filesystem::path directory_;
  int status_ = 0;
};

class SimulatorRun : public Simulator, public testing::WithParamInterface<Run> {};
TEST_P(SimulatorRun, EndsWithItsVerdict) {
  EXPECT_EQ(run(GetParam().options, GetParam().program),
            "qm5-simulator: " + GetParam().line + "\n");
  EXPECT_EQ(status_, GetParam().status);
}
INSTANTIATE_TEST_SUITE_P(
    , SimulatorRun,
    testing::Values(
        Run{"GoodUpdate", "--busy SFWd=2", "", 0,
            "the flash is the image (256 bytes), the signature holds, no breach of protocol, "
            "the program ended with 0"},
        Run{"FailedTask", "--fault SFWd:2=result:4", "", 1,
            "the flash is not the image (128 bytes), the signature does not hold, "
            "no breach of protocol, the program ended with 4"},
        Run{"Breach", "--fault request:4=stall", "", 1,
            "the flash is empty, the signature does not hold, "
            "1 breach of protocol: SFWd without data, the program ended with 15"},
        Run{"AttachedLater", "--attach-after 0.3",
            "sh -c 'test ! -e /dev/bus/usb/001/002 && sleep 1 && test -e /dev/bus/usb/001/002'", 1,
            "the flash is empty, the signature does not hold, no breach of protocol, "
            "the program ended with 0"},
        Run{"UnpluggedAndPluggedBySignals", "",
            "sh -c 'kill -USR1 $PPID; sleep 0.3; test ! -e /dev/bus/usb/001/002 || exit 9; "
            "kill -USR2 $PPID; sleep 0.3; test -e /dev/bus/usb/001/003'",
            1,
            "the flash is empty, the signature does not hold, no breach of protocol, "
            "the program ended with 0"}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(Simulator, RefusesOptionsThatMakeNoSense) {
  for (const char* options : {"--busy", "--busy SFWd=x", "--version 42019", "--fault nonsense",
                              "--attach-after -1", "--unknown 1"}) {
    EXPECT_EQ(run(std::string(options) + " 2>/dev/null", "true"), "") << options;
    EXPECT_EQ(status_, 2) << options;
  }
}

}  // namespace
}  // namespace qm5
