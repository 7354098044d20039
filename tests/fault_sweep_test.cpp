// Every single fault at every control request of an update, every pair of them, and many at
// random: whatever happens, the person is told what the replies on the wire say, never of a
// success that was none without being told so after the power cycle, every text on the screen is
// true at every moment, and the next update works.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>
#include <random>
#include <thread>
#include <tuple>

#include "firmware_image/firmware_image.h"
#include "support/effort.h"
#include "support/text_rules.h"

namespace qm5::test {
namespace {

/// A fault at a request of one update.
struct Trouble {
  Fault fault;
  bool comes_back = false;  ///< once it has left: it is plugged in during the next sleep
  std::string name() const {
    std::string text = "fault " + std::to_string(static_cast<int>(fault.kind)) + ":";
    text.append(std::to_string(fault.value)).append(comes_back ? " back later" : "");
    return text.append(" at request ").append(std::to_string(fault.number)).append("; ");
  }
};
using Troubles = std::vector<Trouble>;

/// What came of an update.
struct Verdict {
  bool is_finished = false;   ///< in the finish dialog
  bool is_unnoticed = false;  ///< although the QM5 is not right
  std::string excuse = {};    ///< of that; none: the host could have known
  std::string wrong = {};     ///< what is not as it must be
};

// What a schedule must contain for a success that is none: within the protocol the host can't
// know.
std::string excuse(const Trouble& trouble, const RequestRecord& hit) {
  const FaultKind kind = trouble.fault.kind;
  const bool is_read = isRead(hit.setup);
  if (kind == FaultKind::busy_for_ever) return "hang";
  if (kind == FaultKind::replug) return "power lost and back";
  const bool leaves = kind == FaultKind::unplug || kind == FaultKind::silent;
  if (leaves && trouble.comes_back) return "power lost and back";
  if (kind == FaultKind::short_reply && is_read) return "reply cut short";
  if (kind == FaultKind::stall && !is_read && hit.setup.wValue == kCommandRegister)
    return "refused command";
  return "";
}

constexpr double kRequestTime = 0.25;   // seconds: so slow a QM5 shows every text of the windows
constexpr std::size_t kRequests = 183;  // of an update without faults

/// The program with a QM5 that can be made to fail.
class Bench {
 public:
  /// When the texts are held against what is so.
  enum class Look { at_every_step, at_the_end };

  explicit Bench(Look look) : look_(look) {
    app_.during_sleep = [this] { slept(); };
    app_.during_alert = [this] {
      run_ = RunState::failed;
      checkTexts();
    };
    app_.during_finish_dialog = [this] { powerCycle(); };
  }

  /// Plugs in another QM5, which needs the update.
  void renewDevice() {
    app_.bus.unplug();
    device_.emplace(Qm5Model(options_));
    device_->setObserver([this](const RequestRecord& record) { requested(record); });
    app_.bus.plug(*device_);
  }
  /// Nothing is wrong any more, and time goes by.
  void recover() {
    device_->clearFaults();
    app_.bus.plug(*device_);
    if (device_->version() == options_.new_version) renewDevice();
    const ControlSetup poll = {kVendorRead, kRegisterRead, kCommandRegister, 0, 5};
    for (int i = 0; i < 2; ++i) device_->control(poll, {});  // ends what was still under way
  }
  /// Tries one update, and holds all that is told against what goes over the wire, and every
  /// text against what is so.
  Verdict tryUpdate(const Troubles& troubles) {
    const Outcome outcome = update(troubles);
    const Expected expected = said_.outcome(!app_.bus.isPlugged());
    const std::string reason = app_.application.shown["runStatus"];
    Verdict verdict = {.is_finished = outcome.title == kFinish};
    if (verdict.is_finished && !was_good_) {
      verdict.is_unnoticed = true;
      for (const Trouble& trouble : troubles)
        if (verdict.excuse.empty() && trouble.fault.number <= requests_.size())
          verdict.excuse = excuse(trouble, requests_[trouble.fault.number - 1]);
    }
    std::vector<std::string> blamed = device_->breaches();
    for (const std::string& each : device_->deviations()) blamed.push_back(each);
    if (outcome == expected.outcome && reason == expected.reason && untrue_.empty() &&
        verdict.is_unnoticed == !verdict.excuse.empty() && blamed.empty())
      return verdict;
    for (const Trouble& trouble : troubles) verdict.wrong += trouble.name();
    verdict.wrong += "\n  told " + outcome.title + ": " + outcome.lines + reason + "\n  expected " +
                     expected.outcome.title + ": " + expected.outcome.lines + expected.reason +
                     "\n  untrue: " + untrue_;
    for (const std::string& finding : blamed) verdict.wrong.append("\n  blamed: " + finding);
    return verdict;
  }

  std::vector<RequestRecord> requests_;  // of the last update that succeeded
  TextCheck texts_;
  std::size_t moments_ = 0;
  std::size_t untruths_ = 0;

 private:
  Outcome update(const Troubles& troubles) {
    device_->clearRequests();
    for (const auto& [fault, comes_back] : troubles) {
      Fault due = fault;
      due.number += device_->requestCount();
      device_->addFault(due);
    }
    troubles_ = troubles;
    requested_ = 0;
    said_ = {};
    next_at_ = taken_at_ = changed_at_ = app_.clock.now();
    untrue_.clear();
    run_ = RunState::under_way;
    Outcome outcome = app_.update();
    if (outcome.title == kFinish) run_ = RunState::none;
    was_away_ = false;
    checkTexts();
    return outcome;
  }
  /// A step of the job: until it goes on, the main thread does all that it has been given.
  void step() {
    if (look_ == Look::at_the_end) return;
    const double seconds = std::floor(app_.clock.now() - next_at_);
    if (std::exchange(ticked_at_, seconds) != seconds) {
      app_.application.mainQueueAsync([this] {
        if (!app_.application.shown["progress"].empty()) app_.application.progress->tick();
      });
    }
    app_.application.whenIdle([this] { checkTexts(); });
  }
  // At once, on the main thread or while that one waits.
  void checkTexts() {
    const double now = app_.clock.now();
    ++moments_;
    const std::string untrue = texts_.untrue(
        app_.application.shown,
        {run_, said_, app_.bus.isPlugged(), now - next_at_, now - taken_at_, now - changed_at_,
         was_away_, device_->version(), run_ == RunState::succeeded && isGood()});
    untruths_ += !untrue.empty();
    if (untrue_.empty()) untrue_ = untrue;
  }
  void requested(const RequestRecord& record) {
    if (run_ != RunState::under_way && run_ != RunState::succeeded) return;
    if (look_ == Look::at_every_step) app_.clock.pass(kRequestTime);
    step();
    ++requested_;
    const std::size_t taken = said_.taken;
    const bool is_new = said_.stage == Stage::opening;
    said_.note(record);
    if (taken != said_.taken || (is_new && said_.stage != Stage::opening))
      taken_at_ = app_.clock.now();
    if (record.status != ControlStatus::gone && record.status != ControlStatus::pending) return;
    changed_at_ = app_.clock.now();
    comes_back_ = std::any_of(troubles_.begin(), troubles_.end(), [this](const Trouble& trouble) {
      return trouble.fault.number == requested_ && trouble.comes_back;
    });
  }
  void slept() {
    if (comes_back_ && !app_.bus.isPlugged()) {
      app_.bus.plug(*device_);
      changed_at_ = app_.clock.now();
    }
    step();
  }
  void powerCycle() {
    run_ = RunState::succeeded;
    checkTexts();
    requests_ = device_->requests();
    was_good_ = isGood();
    device_->clearFaults();
    app_.bus.unplug();
    was_away_ = true;
    app_.application.drain();
    checkTexts();
    app_.bus.plug(*device_);
    app_.application.runUntilShown("powerCycle", [](const std::string& text) {
      return text.starts_with("The QM5 came back");
    });
    checkTexts();
    EXPECT_EQ(device_->requests().size(), requests_.size() + 1);
  }
  bool isGood() const { return device_->signatureHolds() && device_->flash() == flash_; }

  const Look look_;
  const Bytes image_ = smallImage();
  const Bytes flash_ = flashContents(ByteView(image_).subspan(kImagePayloadStart));
  const Qm5Model::Options options_ = {.busy_polls = {{"SFWi", 1}, {"SFWd", 1}, {"SFWs", 1}}};
  std::optional<FaultyQm5> device_;
  WholeApp app_{image_};

  // Of the run under way, and of the last one. Written before the job starts or by the job.
  RunState run_ = RunState::none;
  Troubles troubles_;
  std::size_t requested_ = 0;
  Conversation said_;
  double next_at_ = 0;
  double taken_at_ = 0;
  double changed_at_ = 0;
  double ticked_at_ = 0;
  bool comes_back_ = false;
  bool was_good_ = false;  // the flash and the signature, at the finish dialog
  bool was_away_ = false;
  std::string untrue_;  // the texts of the first moment that had any
};

/// Each fault by itself, in the order of its requests.
Troubles everySingleFault(const std::vector<RequestRecord>& normal) {
  Troubles all;
  const auto add = [&](FaultKind kind, std::size_t number, std::size_t value, bool comes_back) {
    all.push_back({{kind, {}, number, static_cast<std::uint8_t>(value)}, comes_back});
  };
  for (std::size_t number = 1; number <= normal.size(); ++number) {
    for (const FaultKind kind : {FaultKind::stall, FaultKind::stall_on, FaultKind::unplug,
                                 FaultKind::replug, FaultKind::busy_for_ever})
      add(kind, number, 0, false);
    add(FaultKind::unplug, number, 0, true);
    const ControlSetup& setup = normal[number - 1].setup;
    const std::size_t length = isRead(setup) ? setup.wLength : 0;
    for (std::size_t cut = 1; cut <= length; ++cut) add(FaultKind::short_reply, number, cut, false);
    const bool replies = isRead(setup) && setup.wValue == kData3Register;
    for (std::size_t code = 1; replies && code < 16; ++code)
      add(FaultKind::result, number, code, false);
  }
  return all;
}

std::vector<RequestRecord> normalRequests(Bench& bench) {
  bench.renewDevice();
  EXPECT_EQ(bench.tryUpdate({}).wrong, "");
  EXPECT_EQ(bench.requests_.size(), kRequests);
  return bench.requests_;
}

class Faults : public testing::Test {
 protected:
  /// Tries one update with these faults, and one after it without.
  void check(const Troubles& troubles, const std::string& name) {
    bench_.renewDevice();
    const Verdict verdict = bench_.tryUpdate(troubles);
    told_[verdict.is_finished] += 1;
    if (verdict.is_unnoticed) unnoticed_[verdict.excuse] += 1;
    if (verdict.is_unnoticed && verdict.wrong.empty()) told_afterwards_[verdict.excuse] += 1;
    bench_.recover();
    const Verdict next = bench_.tryUpdate({});
    if (verdict.wrong.empty() && next.wrong.empty() && next.is_finished) return;
    ++wrong_;
    ADD_FAILURE() << name << verdict.wrong << "\n  then" << next.wrong;
  }
  void summarize(const std::string& sweep) const {
    report(sweep + ": " + std::to_string(told_[0] + told_[1]) + " tried, " +
           std::to_string(told_[1]) + " finish dialogs, " + std::to_string(told_[0]) + " alerts, " +
           std::to_string(wrong_) + " wrong outcomes");
    report(sweep + ": " + std::to_string(bench_.texts_.checked()) + " texts at " +
           std::to_string(bench_.moments_) + " moments, " + std::to_string(bench_.untruths_) +
           " untrue");
    for (const auto& [why, count] : unnoticed_) {
      std::string line = sweep + ": " + std::to_string(count);
      line.append(" unnoticed: ").append(why).append(", told after the power cycle: ");
      report(line.append(std::to_string(told_afterwards_.at(why))));
    }
  }

  Bench bench_{Bench::Look::at_every_step};
  std::map<std::string, int> unnoticed_;
  std::map<std::string, int> told_afterwards_;

 private:
  std::size_t told_[2] = {};  // alerts and finish dialogs
  std::size_t wrong_ = 0;
};

TEST_F(Faults, EachByItselfEndsAsTheRepliesSay) {
  for (const Trouble& trouble : everySingleFault(normalRequests(bench_))) check({trouble}, "");
  summarize("fault sweep");
  // Where the protocol itself can't know. Nothing may be added unseen.
  EXPECT_EQ(unnoticed_, (std::map<std::string, int>{{"hang", 45},
                                                    {"reply cut short", 4},
                                                    {"power lost and back", 14},
                                                    {"refused command", 2}}));
  EXPECT_EQ(told_afterwards_, unnoticed_);
  EXPECT_EQ(bench_.texts_.unused(), "");
}

TEST_F(Faults, AtRandomNeverEndInAWrongWord) {
  const char* const chosen = std::getenv("QM5_SEED");
  const std::size_t seed = chosen != nullptr ? std::strtoull(chosen, nullptr, 10) : 4208;
  const std::size_t schedules = effort<std::size_t>(500, 20'000);
  for (std::size_t schedule = 0; schedule < schedules; ++schedule) {
    std::seed_seq numbers{seed, schedule};
    std::mt19937 random(numbers);
    Troubles troubles(1 + random() % 5);
    for (auto& [fault, comes_back] : troubles) {
      fault.kind = static_cast<FaultKind>(random() % 8);
      fault.number = 1 + random() % (kRequests + 20);
      fault.value = static_cast<std::uint8_t>(1 + random() % 15);
    }
    const bool returns = random() % 2 == 1;
    for (Trouble& trouble : troubles) trouble.comes_back = returns;
    std::string name = "QM5_SEED=" + std::to_string(seed);
    check(troubles, name.append(", schedule ").append(std::to_string(schedule)).append(": "));
  }
  summarize("random faults");
  EXPECT_EQ(told_afterwards_, unnoticed_);
}

/// What all processes that try pairs have found so far.
struct Tally {
  std::atomic<std::size_t> firsts = SIZE_MAX;  // not known before the first process tells
  std::atomic<std::size_t> all = 1;            // that are to be tried
  std::atomic<std::size_t> tried = 0;
  std::atomic<std::size_t> finished = 0;
  std::atomic<std::size_t> unnoticed = 0;
  std::atomic<std::size_t> wrong = 0;
};

/// One fault after another: in the same update where its request comes later there, otherwise in
/// the next update.
void tryPair(Bench& bench, const Trouble& first, const Trouble& second, Tally& tally) {
  bench.renewDevice();
  const bool is_same_update = second.fault.number > first.fault.number;
  Verdict verdict = bench.tryUpdate(is_same_update ? Troubles{first, second} : Troubles{first});
  std::string wrong = verdict.wrong;
  if (!is_same_update) {
    bench.recover();
    verdict = bench.tryUpdate({second});
    if (!verdict.wrong.empty()) wrong.append(first.name()).append("then ").append(verdict.wrong);
  }
  ++tally.tried;
  tally.finished += verdict.is_finished;
  tally.unnoticed += verdict.is_unnoticed;
  if (wrong.empty()) return;
  ++tally.wrong;
  ADD_FAILURE() << wrong;
}

/// One fault of each kind at one request of each kind: the first one of the update, or the last.
Troubles oneOfEachKind(const std::vector<RequestRecord>& normal, bool first) {
  Troubles all = everySingleFault(normal);
  if (!first) std::reverse(all.begin(), all.end());
  std::set<std::tuple<FaultKind, bool, int, unsigned int, std::size_t>> known;
  std::vector<std::size_t> stages;  // of each request
  Conversation said;
  for (const RequestRecord& record : normal) {
    stages.push_back(static_cast<std::size_t>(said.stage));
    said.note(record);
  }
  std::erase_if(all, [&](const Trouble& trouble) {
    const std::size_t at = trouble.fault.number - 1;
    const ControlSetup& setup = normal[at].setup;
    return !known
                .insert({trouble.fault.kind, trouble.comes_back, isRead(setup), setup.wValue,
                         stages[at]})
                .second;
  });
  return all;
}

/// Tries all pairs that begin with one fault, if there are so many faults.
void tryPairsOf(std::size_t number, Tally& tally) {
  Bench bench(Bench::Look::at_the_end);
  const auto normal = normalRequests(bench);
  const Troubles firsts = isLong() ? everySingleFault(normal) : oneOfEachKind(normal, true);
  const Troubles seconds = isLong() ? firsts : oneOfEachKind(normal, false);
  tally.firsts = firsts.size();
  tally.all = firsts.size() * seconds.size();
  if (number >= firsts.size()) return;
  for (const Trouble& second : seconds)
    if (tally.wrong < 20) tryPair(bench, firsts[number], second, tally);
}

/// Tells on the terminal, if there is one, how far the pairs are.
void showProgress(const Tally& tally, double seconds) {
  static std::ofstream terminal("/dev/tty");
  const double done = static_cast<double>(tally.tried) / static_cast<double>(tally.all);
  if (done > 0) {
    terminal << "\rPairs of faults: " << std::lround(100 * done) << " %, about "
             << std::lround(std::ceil(seconds * (1 - done) / done / 60)) << " min left  "
             << (done < 1 ? "" : "\n") << std::flush;
  }
}

// Each first fault in a process of its own, as a process has but one application and one bus; as
// many at once as there are cores.
TEST(FaultPairs, EndAsTheRepliesSay) {
  void* const shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Tally& tally = *new (shared) Tally;
  const auto start = std::chrono::steady_clock::now();
  std::size_t begun = 0;
  for (std::size_t ended = 0; ended < begun || begun < tally.firsts;) {
    if (begun < tally.firsts && begun - ended < std::thread::hardware_concurrency()) {
      if (fork() == 0) {
        tryPairsOf(begun, tally);
        std::cout << std::flush;
        _exit(HasFailure());
      }
      ++begun;
      continue;
    }
    int status = 0;
    ASSERT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(status, 0) << "a process has found a wrong outcome or broken down";
    ++ended;
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    showProgress(tally, seconds.count());
  }
  EXPECT_EQ(tally.tried, tally.all);
  EXPECT_EQ(tally.wrong, 0u);
  report("pairs of faults: " + std::to_string(tally.tried) + " tried, " +
         std::to_string(tally.finished) + " finish dialogs, " +
         std::to_string(tally.tried - tally.finished) + " alerts, " + std::to_string(tally.wrong) +
         " wrong outcomes");
  report("pairs of faults: " + std::to_string(tally.unnoticed) +
         " unnoticed, all told after the power cycle");
}

}  // namespace
}  // namespace qm5::test
