#include "app_command/verdict.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "update_run/device_state_text.h"

namespace qm5 {
namespace {

constexpr std::string_view kCutOff = "The QM5 may have a part of the update: start it again.";

// From the gravest on.
constexpr std::array kByGravity = {
    ExitStatus::failed,       ExitStatus::ended,    ExitStatus::noImage,   ExitStatus::busInUse,
    ExitStatus::notPermitted, ExitStatus::noDevice, ExitStatus::updateDue, ExitStatus::upToDate};

// The run knows whether there was a QM5 that it could use, the bus knows why not.
bool isExplainedByBus(Outcome outcome, const DeviceState& bus) {
  return outcome == Outcome::noDevice && bus.availability != DeviceAvailability::absent &&
         bus.availability != DeviceAvailability::connected;
}

// The lines of `text`, but for a break inside a sentence, which a window needs.
void appendLines(std::vector<std::string>& lines, const std::string& text) {
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part);) {
    const bool goes_on = !part.empty() && part[0] >= 'a' && part[0] <= 'z';
    goes_on ? void(lines.back().append(" ").append(part)) : lines.push_back(part);
  }
}

std::string noneAt(std::string_view place) {
  return std::string("None was found at port ").append(place).append(".");
}

std::pair<std::string_view, ExitStatus> classify(const RunRecord& record, const DeviceState& bus) {
  if (failedByImage(record)) return {"no-image", ExitStatus::noImage};
  switch (record.outcome) {
    case Outcome::updated:
      return {"updated", ExitStatus::upToDate};
    case Outcome::upToDate:
      return {"up-to-date", ExitStatus::upToDate};
    case Outcome::updateDue:
      return {"update-due", ExitStatus::updateDue};
    case Outcome::noDevice:
      if (bus.availability == DeviceAvailability::notPermitted)
        return {"not-permitted", ExitStatus::notPermitted};
      return {"no-device", ExitStatus::noDevice};
    case Outcome::noVersion:
      return {"no-version", ExitStatus::failed};
    case Outcome::noImage:
    case Outcome::updateFailed:
      break;
  }
  return {"failed", ExitStatus::failed};
}

}  // namespace

Verdict verdictOf(const RunRecord& record, const RunSubject& subject) {
  const auto [outcome, status] = classify(record, subject.bus);
  const OutcomeText text = textOf(record.outcome, subject.version, subject.target_version);
  Verdict verdict = {std::string(outcome), status, {text.title}};
  if (isExplainedByBus(record.outcome, subject.bus)) {
    for (const std::string& line : unusableLines(subject.bus)) verdict.lines.push_back(line);
    return verdict;
  }
  appendLines(verdict.lines, text.message);
  if (record.outcome != Outcome::noDevice) {
    appendLines(verdict.lines, failureReason(record, subject.image_file));
  } else if (!subject.place.empty()) {
    verdict.lines.push_back(noneAt(subject.place));
  }
  if (record.outcome == Outcome::noImage) verdict.lines.emplace_back(subject.image_error);
  return verdict;
}

std::vector<std::string> unusableLines(const DeviceState& bus) {
  std::vector<std::string> lines;
  appendLines(lines, describe(bus));
  if (bus.availability == DeviceAvailability::notPermitted) {
    lines.emplace_back(
        "That rule is for the person at the computer. Others need to be root, or a rule for a "
        "group: see qm5-update(1).");
  }
  return lines;
}

Verdict noDeviceVerdict() {
  const DeviceState bus;
  return verdictOf({Outcome::noDevice, {}, DeviceChange::none}, {{}, {}, {}, {}, bus, {}});
}

Verdict endedVerdict(bool is_cut_off) {
  std::string why = "Ended on request.";
  if (is_cut_off) why.append(" ").append(kCutOff);
  return {"ended", ExitStatus::ended, {why}};
}

Verdict endedUnconfirmedVerdict() {
  return {"ended",
          ExitStatus::ended,
          {"Ended on request. The QM5 was updated, but that was not confirmed by a power cycle."}};
}

Verdict lostProcessVerdict(bool is_cut_off) {
  Verdict verdict = {"failed", ExitStatus::failed, {}};
  verdict.lines.emplace_back("The process for this QM5 has broken off.");
  if (is_cut_off) verdict.lines.emplace_back(kCutOff);
  return verdict;
}

Verdict confirmedVerdict(std::string_view text) {
  return {"confirmed", ExitStatus::upToDate, {std::string(text)}};
}

Verdict unconfirmedVerdict(std::string_view text) {
  return {std::string(kUnconfirmed), ExitStatus::failed, {std::string(text)}};
}

Verdict listedVerdict(std::size_t count, const std::string& place) {
  if (count == 0) {
    return {"no-device",
            ExitStatus::noDevice,
            {place.empty() ? "No QM5 is connected." : noneAt(place)}};
  }
  return {"listed", ExitStatus::upToDate, {}};
}

ExitStatus graver(ExitStatus one, ExitStatus other) {
  return *std::find_if(kByGravity.begin(), kByGravity.end(),
                       [&](ExitStatus each) { return each == one || each == other; });
}

Verdict busInUseVerdict(const std::string& process) {
  return {"bus-in-use",
          ExitStatus::busInUse,
          {process + " has the USB bus.", "Only one at a time can talk to the QM5."}};
}

}  // namespace qm5
