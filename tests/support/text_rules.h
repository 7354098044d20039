// When each text of the windows is true: by what is so on the QM5's side of the bus, never by
// what the program knows.
#pragma once

#include <cmath>
#include <set>
#include <string>
#include <string_view>

#include "support/conversation.h"

namespace qm5::test {

/// What is so at one moment of a run and of the power cycle after it. Times are seconds.
struct Moment {
  using Stage = Conversation::Stage;
  enum class RunState { none, under_way, failed, succeeded };

  bool isOpened() const { return said.stage > Stage::opening && said.stage != Stage::failed; }
  double sinceTaken() const { return time - taken_at; }
  double sinceChange() const { return time - changed_at; }
  double sinceAnswer() const { return time - std::max(taken_at, answered_at); }
  /// The QM5 is the one that the update began with; where it has just left or come back, what
  /// was said before may still stand.
  bool goesOn() const { return sinceChange() < 1 || (is_there && !said.has_left); }
  std::string percent(const char* format) const {
    char text[16];
    const double least = isOpened() ? std::floor(100.0 * static_cast<double>(said.taken) / 3) : 0;
    std::snprintf(text, sizeof text, format, said.taken < kPayloadBlocks ? least : 99.0);
    return text;
  }

  /// A request was made. Returns whether the QM5 has left in the middle of it.
  bool note(const RequestRecord& record, double now) {
    const std::size_t taken = said.taken;
    const bool is_new = said.stage == Stage::opening;
    said.note(record);
    if (isRead(record.setup) && record.status == ControlStatus::ok) answered_at = now;
    if (taken != said.taken || (is_new && said.stage != Stage::opening)) taken_at = now;
    const bool leaves =
        record.status == ControlStatus::gone || record.status == ControlStatus::pending;
    if (leaves) changed_at = now;
    return leaves;
  }

  RunState run = RunState::none;
  Conversation said;              // since Next
  double next_at = 0;             // when Next was pressed
  double taken_at = 0;            // when the QM5 took something, or Next was pressed
  double changed_at = 0;          // when a QM5 left or came
  double answered_at = 0;         // when it last answered a read
  double time = 0;                // now
  bool is_there = false;          // on the bus
  bool was_away = false;          // since the update has succeeded
  std::uint16_t version = 0;      // of what runs on the QM5
  bool is_good = false;           // its flash and signature are right
  std::string title_before = {};  // that of the run before stands until the update is opened
};

/// A text that ends with a star stands for all that begin like it. A text without a rule is
/// wrong, and so is an outlet of the table that shows nothing and has no rule for that.
struct TextRule {
  std::string_view outlet;
  std::string_view text;
  bool (*is_so)(const Moment& now, const std::string& text);
};

using Now = const Moment&;
using Text = const std::string&;
using RunState = Moment::RunState;
using Stage = Moment::Stage;

inline constexpr TextRule kTextRules[] = {
    {"deviceStatus", "No QM5 is connected.", [](Now now, Text) { return !now.is_there; }},
    {"deviceStatus", "A QM5 is connected.", [](Now now, Text) { return now.is_there; }},
    {"txtPackagedVersion", "Firmware version in this package: 4208",
     [](Now, Text) { return true; }},
    {"runStatus", "", [](Now now, Text) { return now.run != RunState::failed; }},
    {"runStatus", "The QM5 was disconnected during the update; it *",
     [](Now now, Text) { return now.run == RunState::failed && now.said.has_left; }},
    {"runStatus", "The QM5 *",
     [](Now now, Text) { return now.run == RunState::failed && !now.said.has_left; }},
    {"btnDetails", "", [](Now now, Text) { return now.run != RunState::failed; }},
    {"btnDetails", "shown", [](Now now, Text) { return now.run == RunState::failed; }},
    {"alert", "", [](Now, Text) { return true; }},
    {"alert", "Flash firmware error|Flash ti dmc firmware error, please try again.",
     [](Now now, Text) { return now.run == RunState::failed && now.said.stage > Stage::looking; }},
    {"alert",
     "Get customer version error !|There is no QM5 connected!\n"
     "Check your QM5 connection then try again.",
     [](Now now, Text) { return now.run == RunState::failed && now.said.stage == Stage::looking; }},

    {"progress", "", [](Now now, Text) { return now.run != RunState::under_way; }},
    {"progress", "up|", [](Now now, Text) { return now.run == RunState::under_way; }},
    {"txtTitle2", "*",
     [](Now now, Text text) {
       if (!now.isOpened()) return text == now.title_before;
       return text == "Updating firmware version from " + now.said.version + " -> 4208, (" +
                          now.percent("%.1f") + " %)";
     }},
    {"progressBar", "*", [](Now now, Text text) { return text == now.percent("%f"); }},
    {"txtElapsed", "Elapsed: *",
     [](Now now, Text text) {
       int minutes = 0;
       int seconds = 0;
       std::sscanf(text.c_str(), "Elapsed: %d:%2d", &minutes, &seconds);
       const double late = now.time - now.next_at - 60 * minutes - seconds;
       return late > -0.01 && late < 2 && text[text.size() - 3] == ':';
     }},
    {"txtRemaining", "", [](Now, Text) { return true; }},
    {"txtRemaining", "Less than a minute left to write",
     [](Now now, Text) {
       return now.said.stage == Stage::payload && now.goesOn() && now.sinceTaken() < 6;
     }},
    {"txtPhase", "Preparing the update.",
     [](Now now, Text) { return !now.isOpened() && now.goesOn() && now.time - now.next_at < 6; }},
    {"txtPhase", "Writing the new firmware.",
     [](Now now, Text) {
       return now.said.stage == Stage::payload && now.goesOn() && now.sinceTaken() < 6;
     }},
    {"txtPhase", "Waiting for the QM5 to respond.",
     [](Now now, Text) {
       const bool takes = now.said.stage <= Stage::payload;
       return now.goesOn() && (takes ? now.sinceTaken() : now.sinceAnswer()) >= 5;
     }},
    {"txtPhase", "The QM5 is checking the new firmware. This can take minutes.",
     [](Now now, Text) {
       return now.said.stage == Stage::secure && now.goesOn() && now.sinceAnswer() < 7;
     }},
    {"txtPhase", "Waiting for the update to end.", [](Now now, Text) { return now.said.has_left; }},
    {"progress deviceStatus", "", [](Now now, Text) { return now.goesOn(); }},
    {"progress deviceStatus",
     "The QM5 has been disconnected: without it, the update will end in an error message. Connect*",
     [](Now now, Text) { return !now.is_there && now.said.stage != Stage::secure; }},
    {"progress deviceStatus",
     "The QM5 has been disconnected: without it, the update will end in an "
     "error message, which can take up to five minutes.*",
     [](Now now, Text) { return !now.is_there && now.said.stage == Stage::secure; }},
    {"progress deviceStatus", "The QM5 does not answer. Unless*",
     [](Now now, Text) {
       return now.said.stage == Stage::secure && now.goesOn() && now.sinceAnswer() >= 5;
     }},
    {"progress deviceStatus", "The QM5 was disconnected and is back.*",
     [](Now now, Text) { return now.is_there && now.said.has_left; }},
    {"sleepStatus", "", [](Now, Text) { return true; }},

    {"finish", "", [](Now now, Text) { return now.run != RunState::succeeded; }},
    {"finish",
     "Firmware update successful!|Firmware update successful!|New version(QM5 v.4208)\n"
     "Please power cycle your QM5 to apply\nthe new firmware.|Confirm & Exit|",
     [](Now now, Text) { return now.run == RunState::succeeded && now.said.stage == Stage::sent; }},
    {"powerCycle", "", [](Now now, Text) { return !now.was_away; }},
    {"powerCycle",
     "The QM5 is off, unplugged or at another USB port. Waiting for it at the port it had.",
     [](Now now, Text) { return !now.is_there; }},
    {"powerCycle", "The QM5 is back. Its version is being read.",
     [](Now now, Text) { return now.is_there && now.was_away && now.said.version_reads == 1; }},
    {"powerCycle", "The QM5 came back and reported version 4208. The update is complete.",
     [](Now now, Text) {
       return now.said.version_reads == 2 && now.version == 0x4208 && now.is_good;
     }},
    {"powerCycle",
     "The QM5 came back and still reported version 4201, not 4208. Start the updater again and "
     "repeat the update.",
     [](Now now, Text) {
       return now.said.version_reads == 2 && now.version == 0x4201 && !now.is_good;
     }},
};

/// Holds all texts on the screen against the table.
class TextCheck {
 public:
  using Shown = std::map<std::string, std::string, std::less<>>;

  /// Those that are not true now, and those without a rule.
  std::string untrue(const Shown& shown, const Moment& now) {
    static const std::set<std::string_view> kOfProgress = {
        "txtTitle2", "progressBar", "txtElapsed",           "txtRemaining",
        "txtPhase",  "sleepStatus", "progress deviceStatus"};
    const auto window = shown.find("progress");
    const bool is_up = window != shown.end() && !window->second.empty();
    std::string wrong;
    for (const auto& [outlet, text] : shown) {
      if (!is_up && kOfProgress.contains(outlet)) continue;
      ++checked_;
      if (!isTrue(outlet, text, now)) wrong.append(outlet).append(": ").append(text).append("\n");
    }
    return wrong;
  }
  std::size_t checked() const { return checked_; }
  /// The texts of the table that no moment has shown.
  std::string unused() const {
    std::string texts;
    for (const TextRule& rule : kTextRules)
      if (!used_.contains(&rule)) texts.append(rule.outlet).append(": ").append(rule.text);
    return texts;
  }

 private:
  bool isTrue(const std::string& outlet, const std::string& text, const Moment& now) {
    bool is_known = false;
    for (const TextRule& rule : kTextRules) {
      if (rule.outlet != outlet) continue;
      is_known = true;
      const bool fits = rule.text.ends_with('*')
                            ? text.starts_with(rule.text.substr(0, rule.text.size() - 1))
                            : text == rule.text;
      if (!fits) continue;
      used_.insert(&rule);
      return rule.is_so(now, text);
    }
    return !is_known && text.empty();
  }

  std::size_t checked_ = 0;
  std::set<const TextRule*> used_;
};

}  // namespace qm5::test
