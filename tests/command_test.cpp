// qm5-update as it is installed, on the emulated bus: each way to end, with its exit status and its
// outcomes in JSON. The schema checks all lines, and the requests are compared with those that the
// windows send too.
#include <gtest/gtest.h>

#include <fstream>
#include <numeric>
#include <set>

#include "simulator/command/trace.h"
#include "support/named_cases.h"
#include "support/update_requests.h"

namespace qm5::test {
namespace {

/// What a shell does once when a line has that text. $P is the program, $S the simulator, $D a
/// folder.
using Steps = std::vector<std::pair<std::string, std::string>>;

struct Ending {
  std::string name;
  std::string simulator;  // its options
  std::string arguments;
  std::string outcome;  // exit status, then of each QM5 the device, outcome and version
  std::string text;     // a part of what was written
  Steps steps = {};
  std::string starter = {};  // a program that starts it
};
QM5_PRINTS_NAME(Ending)

// The lines on standard output. The last ones are the simulator's, one for each QM5.
std::vector<std::string> run(const std::string& simulator, const std::string& program,
                             Steps steps) {
  char folder[] = "/tmp/command_test-XXXXXX";
  setenv("D", mkdtemp(folder), 1);
  const std::string command = "exec " QM5_BIN "/qm5-simulator " + simulator +
                              " -- sh -c 'echo P=$$ S=$PPID >$D/ids; " + program + "' 2>/dev/null";
  FILE* const pipe = popen(command.c_str(), "r");
  std::vector<std::string> lines;
  for (char text[2000]; std::fgets(text, sizeof text, pipe) != nullptr;) {
    lines.emplace_back(text, std::string_view(text).find('\n'));
    if (steps.empty() || lines.back().find(steps[0].first) == std::string::npos) continue;
    EXPECT_EQ(std::system((". $D/ids; " + steps[0].second).c_str()), 0);
    steps.erase(steps.begin());
  }
  pclose(pipe);
  EXPECT_EQ(std::system("rm -r $D"), 0);
  EXPECT_TRUE(steps.empty()) << steps[0].first;
  return lines;
}

void expectSchema(const std::vector<std::string>& lines) {
  FILE* const validator = popen(
      "python3 -c 'import json, jsonschema, sys\n"
      "validator = jsonschema.Draft202012Validator(json.load(open(sys.argv[1])))\n"
      "for line in sys.stdin: validator.validate(json.loads(line))' " QM5_SCHEMA,
      "w");
  for (const std::string& line : lines) std::fputs((line + "\n").c_str(), validator);
  EXPECT_EQ(pclose(validator), 0);
}

std::string summary(const std::string& line) {
  std::string summary;
  for (const std::string key : {"\"device\":", "\"outcome\":", "\"version\":"}) {
    const std::size_t begin = line.find(key) + key.size();
    summary.append(" ").append(line, begin, line.find_first_of(",}", begin) - begin);
  }
  std::erase(summary, '"');
  return summary;
}

// Of all outcomes, in the order of the ports.
std::string summary(const std::vector<std::string>& lines) {
  std::set<std::string> outcomes;
  for (const std::string& line : lines) {
    if (line.find("\"event\":\"outcome\"") != line.npos) outcomes.insert(summary(line));
  }
  return std::accumulate(outcomes.begin(), outcomes.end(), std::string());
}

// The second of sixteen refuses a block, the third is up to date, the fourth leaves.
std::string summaryOfSixteen() {
  std::set<std::string> outcomes;
  for (int port = 2; port < 18; ++port) {
    const char* const outcome = port == 4                ? " up-to-date 4208"
                                : port == 3 || port == 5 ? " failed 4201"
                                                         : " updated 4201";
    outcomes.insert(" 1-1." + std::to_string(port) + outcome);
  }
  return std::accumulate(outcomes.begin(), outcomes.end(), std::string());
}

class Command : public testing::TestWithParam<Ending> {};
TEST_P(Command, EndsWithItsStatusAndOutcome) {
  const auto& [name, simulator, arguments, outcome, text, steps, starter] = GetParam();
  auto lines =
      run(simulator, "exec " + starter + " " QM5_BIN "/qm5-update --json " + arguments, steps);
  const std::string status = lines.back().substr(lines.back().rfind(' ') + 1);
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("qm5-simulator"); });
  expectSchema(lines);
  ASSERT_EQ(lines.empty(), outcome == status) << status;
  if (lines.empty()) return;
  EXPECT_EQ(status + summary(lines), outcome);
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  EXPECT_NE(all.find(text), all.npos) << all;
  EXPECT_NE(all.find("\"status\":" + status + ","), all.npos) << all;
}

const std::string kUpdate = " --wait --image " QM5_SMALL_IMAGE " --target 4208";
const std::string kAway = "--attach-after 1000";
const Steps kDrops = {{"updating", "kill -STOP $S; kill -HUP $P; kill -INT $P; kill -CONT $S"}};
const Steps kInsists = {{"updating", "while kill -TERM $P; do sleep 0.2; done 2>/dev/null"}};
const Steps kBreaksOff = {{"updating", "kill -KILL $(cat /proc/$P/task/$P/children)"}};
const Steps kPermits = {{"may not open it", "kill -USR2 $S"}};
const Steps kGivesUp = {{"Waiting", "kill -INT $P"}};
const Steps kCycles = {
    {"Waiting", "kill -USR2 $S"}, {"confirming", "kill -USR1 $S"}, {"is off", "kill -USR2 $S"}};
const Steps kHangsUp = {{"confirming", "kill -HUP $P"}};
const Steps kCyclesLate = {{"Waiting", "kill -USR2 $S"},
                           {"confirming", "sleep 4; kill -USR1 $S"},
                           {"is off", "kill -USR2 $S"}};
const Steps kUnplugs = {{"does not answer", "kill -USR1 $S"}};
const Steps kSilent = {{"does not answer", kInsists[0].second}};
const Steps kBothCycle = {{"Waiting", "kill -USR2 $S"},
                          {"confirming", ":"},
                          {"confirming", "kill -USR1 $S"},
                          {"is off", ":"},
                          {"is off", "kill -USR2 $S"}};
const std::vector<Ending> kEndings = {
    {"signals", "--latency-ms 10", kUpdate, "0 1-1.2 updated 4201", "power cycle", kDrops},
    {"insisting", "--fault SFWs:1=silent", kUpdate, "7 1-1.2 ended 4201", "a part of", kInsists},
    {"a signal while it waits", kAway, "--wait", "7 null ended null", "request", kGivesUp},
    {"a power cycle", kAway, " --confirm" + kUpdate, "0 1-1.2 confirmed 4201", "", kCycles},
    {"a late power cycle", kAway, " --confirm" + kUpdate + " --wait=3", "0 1-1.2 confirmed 4201",
     "", kCyclesLate},
    {"a hang-up", "", " --confirm" + kUpdate, "7 1-1.2 ended 4201", "QM5 was updated", kHangsUp},
    {"a silent check", "--fault SFWs:2=silent", kUpdate, "7 1-1.2 ended 4201", "does not answer",
     kSilent},
    {"left early", "--devices 2 --fault 1:request:3=unplug", "--all" + kUpdate,
     "1 1-1.2 failed 4201 1-1.3 updated 4201", ""},
    {"no power cycle", "", kUpdate + " --confirm=0.1", "1 1-1.2 unconfirmed 4201", "in time"},
    {"up to date", "--version 4208", "", "0 1-1.2 up-to-date 4208", "No need to update."},
    {"a check", "", "--check --target 0a0b", "10 1-1.2 update-due 4201", "version 0A0B"},
    {"a check of one", "--devices 2", "--check", "10 1-1.2 update-due 4201", "another one."},
    {"a refused block", "--fault SFWs:1=result:5", kUpdate, "1 1-1.2 failed 4201",
     "with code 0x5."},
    {"a small flash", "--flash-size 128", kUpdate, "1 1-1.2 failed 4201", "FAIL_TOO_MUCH_DATA"},
    {"no version", "--fault request:1=stall", kUpdate, "1 1-1.2 no-version null",
     "version error !"},
    {"wrong options", "", "--image /nowhere", "2", ""},
    {"an image to check", "", "--check --image /nowhere --target 4208", "2", ""},
    {"an empty value", kAway, "--wait=", "2", ""},
    {"no QM5", kAway, "--wait=0.1", "3 null no-device null", "No QM5 device !"},
    {"a wrong letter", "", "-xy 2>&1 | grep -q \"option -x;\"", "0", ""},
    {"a list in order", "--devices 10", "--list", "0 null listed null",
     "1-1.9\",\"event\":\"device\",\"version\":\"4201\"}\n{\"access\":\"permitted\",\"device\":\"1-"
     "1.10\""},
    {"a list", "", "--list --device 1-1.2", "0 1-1.2 listed null", "4201"},
    {"a silent one of two", "--devices 2 --fault 1:request:1=silent", "--list",
     "0 null listed null", "1-1.2 does not answer", kUnplugs},
    {"another port", "", "--device 1-2", "3 1-2 no-device null", "None was found at port 1-2."},
    {"no right", "--no-permission", "", "4 null not-permitted null", "you may not open it"},
    {"a late right", "--no-permission", kUpdate, "0 1-1.2 updated 4201", "", kPermits},
    {"a bus in use", "", "", "5 null bus-in-use null", "flock (", {}, "flock /sys/bus/usb"},
    {"no image", "", "--image /no --target 4208", "6 1-1.2 no-image 4201", "/no is missing"},
    {"each its own",
     "--devices 16 --version 3:4208 --fault 2:SFWs:1=result:5 --fault 4:request:12=unplug",
     "--all" + kUpdate, "1" + summaryOfSixteen(), "0x5."},
    {"signals for all", "--devices 2 --latency-ms 10", "--all" + kUpdate,
     "0 1-1.2 updated 4201 1-1.3 updated 4201", "ends once the update has ended", kDrops},
    {"insisting for all", "--fault SFWs:1=silent", "--all" + kUpdate, "7 1-1.2 ended 4201",
     "a part of", kInsists},
    {"power cycles", "--attach-after 1000 --devices 2", "--all --confirm" + kUpdate,
     "0 1-1.2 confirmed 4201 1-1.3 confirmed 4201", "", kBothCycle},
    {"a check of all", "--devices 2 --version 2:4208", "--all --check",
     "10 1-1.2 update-due 4201 1-1.3 up-to-date 4208", "No need to update."},
    {"broken off", "--latency-ms 20", "--all" + kUpdate, "1 1-1.2 failed 4201",
     "has broken off.\\nThe QM5 may have a part", kBreaksOff},
    {"one of all", "", "--all --device 1-1.2", "2", ""},
    {"all of none", kAway, "--all --wait=0.1", "3 null no-device null", "No QM5 device !"},
    {"no fit image", "", "--image /etc/group --target 4208", "6 1-1.2 no-image 4201", "no image"},
};
INSTANTIATE_TEST_SUITE_P(Endings, Command, testing::ValuesIn(kEndings), named);

TEST(CommandRequests, AreThoseOfTheWindows) {
  std::ifstream file(QM5_SMALL_IMAGE, std::ios::binary);
  const auto lines =
      run("--trace /dev/stdout", "exec " QM5_BIN "/qm5-update" + kUpdate + " >/dev/null", {});
  auto line = lines.begin();
  for (const auto& [setup, sent] : updateRequests(Bytes(std::istreambuf_iterator(file), {}))) {
    const std::string wanted = traceLine({{}, setup, sent, {}}, {});
    const std::size_t begin = wanted.find("bmRequestType");
    ASSERT_NE(line, lines.end());
    ASSERT_NE(line->find(wanted.substr(begin, wanted.find("\",\"s") - begin)), line->npos) << *line;
    ++line;
  }
  EXPECT_EQ(line, lines.end() - 1) << "but for the verdict";
}

TEST(CommandForAll, UpdatesSixteenAtOnce) {
  const auto lines = run("--devices 16 --image " QM5_SMALL_IMAGE,
                         "exec " QM5_BIN "/qm5-update --all --quiet" + kUpdate, {});
  EXPECT_EQ(lines.size(), 16U);
  for (const std::string& line : lines) {
    EXPECT_NE(line.find("the flash is the image"), line.npos) << line;
    EXPECT_TRUE(line.ends_with("holds, no breach of protocol, the program ended with 0")) << line;
  }
}

// With these options, and what is written as the update begins and near its end.
struct Asking {
  std::string name, options, begin, near_end;
};
class CommandTerminal : public testing::TestWithParam<Asking> {};
TEST_P(CommandTerminal, AsksInTheWordsOfTheWindowsAndEndsAtQuit) {
  const std::string in_terminal = "echo P=\\$\\$ >>$D/ids; TERM=xterm exec " QM5_BIN "/qm5-update" +
                                  kUpdate + GetParam().options;
  const auto lines =
      run("--latency-ms 40", "mkfifo $D/in; script -qec \"" + in_terminal + "\" /dev/null <>$D/in",
          {{GetParam().begin, "kill -INT $P"},
           {"Do you really want to exit?", "sleep 0.5; echo >$D/in"},
           {GetParam().near_end, "kill -STOP $S; kill -INT $P"},
           {"Do you really want to exit?",
            "echo q >$D/in; while kill -0 $P; do sleep 0.1; done 2>/dev/null; kill -CONT $S"}});
  EXPECT_TRUE(lines.back().ends_with("ended with 7")) << lines.back();
  const auto question = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.starts_with("q and Enter");
  });
  ASSERT_NE(question, lines.end());
  EXPECT_EQ(question[1], "\r") << "nothing follows the question but the person's Enter";
}
const std::string kBegins = "Updating firmware version from 4201 -> 4208";
const Asking kAskings[] = {{"one", "", kBegins, "99.0 %"},
                           {"all", " --all", kBegins, "99.0 %"},
                           {"json", " --json", R"("event":"updating")", R"("percent":99)"}};
INSTANTIATE_TEST_SUITE_P(With, CommandTerminal, testing::ValuesIn(kAskings), named);

}  // namespace
}  // namespace qm5::test
