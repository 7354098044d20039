// Every key in every state of the windows, and many at random: no key, held key, closing of a
// window or signal ends an update but a deliberate "Quit", no window is left without a way on, and
// none says what is not so.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "app_shell/process/already_running.h"
#include "support/desk.h"

namespace qm5::test {
namespace {

/// A window with its buttons in the order of Tab, from the one that has the focus at first; "" has
/// no button. What closing it and Escape bring up or take away.
struct Rule {
  unsigned shown;
  std::vector<QString> buttons;
  unsigned closing;
  unsigned escape;
};
// The one on top comes first.
const std::vector<Rule> kRules = {{kSave, {}, kSave, kSave},
                                  {kQuestion, {"Don't quit", "Quit"}, kQuestion, kQuestion},
                                  {kProgress, {"", "Abort"}, kQuestion, 0},
                                  {kAlert, {"OK"}, kAlert, kAlert},
                                  {kFinish, {"Confirm & Exit"}, 0, 0},
                                  {kDetails, {"Close", "", "Copy", "Save…"}, kDetails, kDetails},
                                  {kFailed, {"Next", "Exit", "Details…"}, kEnded, 0},
                                  {0, {"Next", "Exit"}, kEnded, 0}};
/// What a press of a button brings up or takes away.
const std::map<QString, unsigned> kButtons = {
    {"", 0},          {"Next", kProgress},       {"Exit", kQuestion}, {"Abort", kQuestion},
    {"Quit", kEnded}, {"Don't quit", kQuestion}, {"OK", kAlert},      {"Confirm & Exit", kEnded},
    {"Copy", 0},      {"Close", kDetails},       {"Save…", kSave},    {"Details…", kDetails}};

const Rule& ruleOf(unsigned shown) {
  return *std::find_if(kRules.begin(), kRules.end(),
                       [=](const Rule& rule) { return (shown & rule.shown) == rule.shown; });
}

/// What is on the screen after that press. `early`: in the first half second of a window that came
/// up by itself.
unsigned expected(unsigned shown, const QString& focus, bool early, const Press& press) {
  const Rule& rule = ruleOf(shown);
  unsigned change = 0;
  if (press.key == kCloses) {
    change = rule.closing;
  } else if (press.key == kClosesMain) {  // another window stands on it
  } else if (!early && press.key == Qt::Key_Escape) {
    change = rule.escape;
  } else if (!early && !rule.buttons.empty()) {  // Space only changes the name of a file
    const auto& buttons = rule.buttons;
    const auto at = std::find(buttons.begin(), buttons.end(), focus) - buttons.begin();
    QString button = buttons[static_cast<std::size_t>(at + press.tabs) % buttons.size()];
    // Return presses the default button where none has the focus, and never Abort.
    if (press.key != Qt::Key_Space && (button.isEmpty() || button == "Abort")) button = buttons[0];
    change = kButtons.at(press.button.isEmpty() ? button : press.button);
  }
  if (change == kEnded) return kEnded;
  return change == kProgress ? change : shown ^ change;
}

/// All presses, those that are for a button of the window on top included.
std::vector<Press> pressesIn(unsigned shown) {
  const Rule& rule = ruleOf(shown);
  std::vector<Press> presses = {{kCloses}, {Qt::Key_Escape}};
  if (rule.buttons.empty()) return presses;
  if (rule.shown != kFailed && rule.shown != 0) presses.push_back({kClosesMain});
  presses.push_back({Qt::Key_Space, 0, false, {}, 3});
  for (const bool held : {false, true}) {
    for (const int tabs : {0, 1, 2, 3}) presses.push_back({Qt::Key_Space, tabs, held});
    for (const int tabs : {0, 1}) presses.push_back({Qt::Key_Return, tabs, held});
    presses.push_back({Qt::Key_Enter, 0, held});
    for (const QString& title : rule.buttons) {
      if (!title.isEmpty() && !title.contains('&'))
        presses.push_back({Qt::Key_Alt, 0, held, title});
    }
  }
  presses.push_back({Qt::Key_Escape, 0, true});
  for (const QString& title : rule.buttons) {
    if (!title.isEmpty()) presses.push_back({kClicks, 0, false, title});
  }
  return presses;
}

std::string nameOf(const Press& press) {
  const std::string key = QKeySequence(press.key).toString().toStdString();
  std::string name = std::to_string(press.tabs) + " Tabs and " + (press.held ? "a held " : "");
  name.append(key).append(" ").append(press.button.toStdString());
  return press.times > 1 ? name + std::to_string(press.times) + " times" : name;
}

constexpr Stop kInSleep = {.sleep = true};
constexpr Stop kWriting = {.request = 20};    // in the payload
constexpr Stop kChecking = {.request = 120};  // among the secure blocks
const Fault kRefused = {FaultKind::stall, "SFWi"};

/// How to get into a state, from the main window at rest.
struct State {
  std::string name;
  unsigned shown;
  std::vector<QString> steps = {"Next"};  // buttons that are pressed, and what happens
  Stop stop = {};                         // where the update is held
  std::optional<Fault> fault = {};
  double waits = 1.1;  // seconds that pass then; 0: a window has just come up by itself
  std::uint16_t version = 0x4201;
  bool has_image = true;
};
const std::vector<State> kStates = {
    {"idle", 0, {}},
    {"first second", kProgress, {"Next"}, kInSleep},
    {"writing", kProgress, {"Next"}, kWriting},
    {"waiting", kProgress, {"Next"}, kWriting, {}, 60},
    {"checking", kProgress, {"Next"}, kChecking},
    {"QM5 gone", kProgress, {"Next", "unplug"}, kWriting},
    {"QM5 gone while checking", kProgress, {"Next", "unplug"}, kChecking},
    {"question", kProgress | kQuestion, {"Next", "Abort"}, kWriting},
    {"question by a signal", kProgress | kQuestion, {"Next", "signal"}, kWriting},
    {"question just come up", kProgress | kQuestion, {"Next", "signal"}, kWriting, {}, 0},
    {"question before exit", kQuestion, {"Exit"}},
    {"no QM5", kAlert | kFailed, {"unplug", "Next"}},
    {"no version", kAlert | kFailed, {"Next"}, {}, Fault{FaultKind::stall, "", 1}},
    {"up to date", kAlert, {"Next"}, {}, {}, 1.1, 0x4208},
    {"no image", kAlert | kFailed, {"Next"}, {}, {}, 1.1, 0x4201, false},
    {"failed", kAlert | kFailed, {"Next"}, {}, kRefused},
    {"just failed", kAlert | kFailed, {"Next"}, {}, kRefused, 0},
    {"idle after a failure", kFailed, {"Next", "OK"}, {}, kRefused},
    {"details", kDetails | kFailed, {"Next", "OK", "Details…"}, {}, kRefused},
    {"save", kSave | kDetails | kFailed, {"Next", "OK", "Details…", "Save…"}, {}, kRefused},
    {"finished", kFinish},
    {"just finished", kFinish, {"Next"}, {}, {}, 0}};

void reach(Desk& desk, const State& state) {
  desk.plug({.version = state.version});
  if (state.fault) desk.qm5->addFault(*state.fault);
  desk.stopAt(state.stop);
  for (const QString& step : state.steps) {
    desk.letASecondPass();
    if (step == "unplug") {
      desk.bus.unplug();
    } else if (step == "signal") {
      desk.signal();
    } else {
      desk.click(step);
    }
    desk.awaitStop();
  }
  desk.clock.sleep(state.waits);
  if ((state.shown & kProgress) == 0) desk.stopAt(kInSleep);  // where a press starts a run
  const std::vector<QString>& buttons = ruleOf(state.shown).buttons;
  EXPECT_EQ(desk.focus(), buttons.empty() ? "" : buttons[0]);
}

/// `disturbed`: the protocol may hide from the host that the update came to nothing.
void check(Desk& desk, unsigned shown, bool disturbed) {
  EXPECT_EQ(desk.shown(), shown);
  if (shown == kEnded) return;
  EXPECT_TRUE(desk.hasWayOn());
  EXPECT_NE(std::remove("qm5-update-lines.txt"), 0) << "Nobody has pressed the last \"Save\".";
  EXPECT_TRUE(!desk.is_undecided || (shown & kQuestion) != 0);
  const bool there = desk.bus.isPlugged();
  const std::pair<const char*, bool> words[] = {
      {"A QM5 is connected.", there},
      {"No QM5 is connected.", !there},
      {"Writing the new firmware.", there},
      {"left to write", there},
      {"is checking", there},
      {"Waiting for the QM5 to respond", there},
      {"has been disconnected", !there},
      {"is off, unplugged", !there},
      {"update will end", (shown & kProgress) != 0},
      {"successful", (shown & kFinish) != 0 && (disturbed || desk.qm5->signatureHolds())},
      {"The update is complete", desk.qm5->version() == 0x4208}};
  const std::string texts = desk.texts();
  for (const auto& [said, is_so] : words)
    EXPECT_TRUE(is_so || texts.find(said) == texts.npos) << said << " in:\n" << texts;
}

/// What the run does once the key has been pressed.
enum class Then { goesOn, succeeds, fails, unplugged };

void tryOut(Desk& desk, const State& state, const Press& press, Then then) {
  reach(desk, state);
  ASSERT_EQ(desk.shown(), state.shown);
  unsigned shown = state.shown;
  for (int time = 0; time < press.times; ++time) {
    shown = expected(shown, desk.focus(), state.waits == 0, press);
    desk.send(press);
    check(desk, shown, false);
    if (shown == kEnded) return;
  }
  if ((state.shown & kProgress) != 0) {
    const std::size_t next = desk.qm5->requestCount() + 1;
    if (then == Then::fails) desk.qm5->addFault({FaultKind::stall_on, "", next});
    if (then == Then::unplugged) desk.bus.unplug();
    desk.goOn(then == Then::goesOn ? Stop{next + 2} : Stop{});
    if (then == Then::succeeds) shown = kFinish;
    if (then == Then::fails || !desk.bus.isPlugged()) shown = kAlert | kFailed;
    check(desk, shown, false);
  }
  if (ruleOf(shown).shown == kAlert) {
    desk.letASecondPass();
    desk.send({Qt::Key_Return});
    check(desk, shown &= ~kAlert, false);
  }
  EXPECT_TRUE((shown & ~kFailed) != 0 || desk.focus() == "Next");
}

TEST(Keys, EndNoUpdateButByADeliberateQuitAndLeaveAWayOn) {
  std::vector<Desk::Case> cases;
  for (const State& state : kStates) {
    std::set<unsigned> followed;
    for (const Press& press : pressesIn(state.shown)) {
      const auto& buttons = ruleOf(state.shown).buttons;
      const QString focus = buttons.empty() ? QString() : buttons[0];
      const unsigned shown = expected(state.shown, focus, state.waits == 0, press);
      // How a run goes on does not depend on the press that has led there.
      const bool is_new = shown != kEnded && followed.insert(shown).second;
      for (const Then then : {Then::goesOn, Then::succeeds, Then::fails, Then::unplugged}) {
        if (then != Then::goesOn && ((state.shown & kProgress) == 0 || !(is_new || isLong())))
          continue;
        cases.push_back({state.name + ", " + nameOf(press) + ", " + std::to_string(int(then)),
                         state.has_image,
                         [&state, press, then](Desk& desk) { tryOut(desk, state, press, then); }});
      }
    }
  }
  EXPECT_TRUE(
      Desk::tryAll("keys", cases.size(), [&](std::size_t number) { return cases[number]; }));
}

TEST(Keys, AnswerTheNoticeOfASecondStart) {
  std::vector<Press> presses = pressesIn(kAlert);
  std::erase_if(presses, [](const Press& press) { return press.key == kClosesMain; });
  const auto caseOf = [&](std::size_t number) {
    return Desk::Case{nameOf(presses[number]), true, [press = presses[number]](Desk& desk) {
                        EXPECT_EQ(desk.shown(), kAlert);
                        EXPECT_TRUE(desk.hasWayOn());
                        desk.send(press);
                        EXPECT_EQ(desk.shown(), kEnded);
                      }};
  };
  EXPECT_TRUE(
      Desk::tryAll("keys at a second start", presses.size(), caseOf, [](Desk&, const auto& begin) {
        begin();
        setenv("DISPLAY", ":0", 1);  // not looked at by this platform
        showAlreadyRunning(1, Desk::arguments(), {BusInUse::By::anotherUser, ""});
      }));
}

/// Keys, closings, signals, faults, unplugs and plugs in any order, from any state on.
class Schedule {
 public:
  explicit Schedule(std::size_t seed) : random_(seed) {}
  const State& state() const { return state_; }
  void play(Desk& desk) {
    reach(desk, state_);
    if (state_.waits == 0) came_ = desk.clock.now();
    disturbed_ = !desk.bus.isPlugged();
    for (auto acts = 1 + random_() % 10; acts > 0; --acts) {
      act(desk, random_() % 10);
      SCOPED_TRACE(story_);
      check(desk, shown_, disturbed_);
      if (shown_ == kEnded || testing::Test::HasFailure()) return;
    }
    letRunGoOn(desk, {});
    check(desk, shown_, disturbed_);
  }

 private:
  void act(Desk& desk, std::size_t kind) {
    story_.append("; ").append(std::to_string(kind));
    disturbed_ = disturbed_ || kind == 0 || kind == 4;
    const std::size_t next = desk.qm5->requestCount() + 1;
    switch (kind) {
      case 0:
        return desk.bus.unplug();
      case 1:
        // What it then says of the power cycle, the fault sweep shows.
        return (shown_ & kFinish) != 0 ? void() : desk.bus.plug(*desk.qm5);
      case 2:
        return signal(desk);
      case 3:
        return desk.letASecondPass();
      case 4:
        return desk.qm5->addFault({static_cast<FaultKind>(random_() % 8), "", next + random_() % 40,
                                   static_cast<std::uint8_t>(1 + random_() % 15)});
      case 5:
        return letRunGoOn(desk, {next + random_() % 60, random_() % 2 == 0});
      default:
        return press(desk);
    }
  }
  void signal(Desk& desk) {
    const bool asks = (shown_ & kProgress) != 0 && !desk.is_undecided;
    if (asks && (shown_ & kQuestion) == 0) came_ = desk.clock.now();
    shown_ = asks ? shown_ | kQuestion : unsigned{kEnded};
    desk.signal();
  }
  void letRunGoOn(Desk& desk, Stop stop) {
    if ((shown_ & kProgress) == 0) return;
    desk.goOn(stop);
    const unsigned shown = desk.shown();
    if (shown == shown_) return;
    EXPECT_TRUE(shown == kFinish || (shown & ~kFailed) == kAlert) << story_ << " to " << shown;
    shown_ = shown;
    came_ = desk.clock.now();
    desk.stopAt(kInSleep);
  }
  void press(Desk& desk) {
    const std::vector<Press> presses = pressesIn(shown_);
    const Press& press = presses[random_() % presses.size()];
    story_.append(" ").append(nameOf(press));
    for (int time = 0; time < press.times && shown_ != kEnded; ++time) {
      const unsigned shown = expected(shown_, desk.focus(), desk.clock.now() < came_ + 0.5, press);
      desk.send(press);
      desk.awaitStop();
      if (shown != shown_) came_ = -1;
      shown_ = shown;
    }
  }

  std::mt19937 random_;
  const State& state_ = kStates[random_() % kStates.size()];
  std::string story_ = state_.name;
  unsigned shown_ = state_.shown;
  double came_ = -1;  // when the window on top came up by itself
  bool disturbed_ = false;
};

TEST(Keys, AtRandomEndNoUpdateUnlessSomebodyMeantIt) {
  const char* const chosen = std::getenv("QM5_SEED");
  const std::size_t first = chosen != nullptr ? std::strtoull(chosen, nullptr, 10) : 4208;
  const auto caseOf = [=](std::size_t number) {
    const std::size_t seed = first + number;
    return Desk::Case{"QM5_SEED=" + std::to_string(seed), Schedule(seed).state().has_image,
                      [=](Desk& desk) { Schedule(seed).play(desk); }};
  };
  EXPECT_TRUE(
      Desk::tryAll("keys, signals and faults at random", effort<std::size_t>(60, 20'000), caseOf));
}

}  // namespace
}  // namespace qm5::test
