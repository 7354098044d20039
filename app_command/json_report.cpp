#include "app_command/json_report.h"

#include <unistd.h>

#include <QJsonDocument>
#include <QString>
#include <sstream>
#include <utility>

namespace qm5 {
namespace {

QString text(std::string_view utf8) {
  return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

QJsonValue textOrNull(std::string_view utf8) {
  return utf8.empty() ? QJsonValue() : QJsonValue(text(utf8));
}

const char* nameOf(AttachedDevice::Access access) {
  switch (access) {
    case AttachedDevice::Access::permitted:
      return "permitted";
    case AttachedDevice::Access::notPermitted:
      return "not-permitted";
    case AttachedDevice::Access::failed:
      break;
  }
  return "failed";
}

QString allLines(const Verdict& verdict) {
  std::string lines;
  for (const std::string& line : verdict.lines) {
    if (!lines.empty()) lines.push_back('\n');
    lines.append(line);
  }
  return text(lines);
}

QJsonObject describe(const Subject& subject) {
  return {{"device", textOrNull(subject.device)},
          {"version", textOrNull(subject.version)},
          {"target", text(subject.target_version)}};
}

// Empty for null.
std::string textIn(const QJsonObject& object, const char* key) {
  return object[key].toString().toStdString();
}

std::vector<std::string> linesIn(const QJsonObject& object) {
  std::istringstream text(textIn(object, "text"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

}  // namespace

bool readJsonLine(std::string_view line, UpdateEvents& events) {
  const QByteArray bytes(line.data(), static_cast<qsizetype>(line.size()));
  const QJsonObject object = QJsonDocument::fromJson(bytes).object();
  const std::string event = textIn(object, "event");
  const Subject subject = {textIn(object, "device"), textIn(object, "version"),
                           textIn(object, "target")};
  const Verdict verdict = {textIn(object, "outcome"),
                           static_cast<ExitStatus>(object["status"].toInt()), linesIn(object)};
  const std::string phase = textIn(object, "phase");
  if (event == "notice") {
    events.note(subject, textIn(object, "text"));
  } else if (event == "updating") {
    events.updating(subject);
  } else if (event == "progress") {
    events.progressed(subject, {.percent = object["percent"].toDouble(),
                                .phase = phase,
                                .elapsed = {},
                                .remaining = textIn(object, "remaining")});
  } else if (event == "confirming") {
    events.confirming(subject, verdict);
  } else if (event == "outcome") {
    events.ended(subject, verdict);
  } else {
    return false;
  }
  return true;
}

void JsonReport::listed(const AttachedDevice& device) {
  write("device", {{"device", textOrNull(device.location)},
                   {"version", textOrNull(device.version.value_or(""))},
                   {"access", nameOf(device.access)}});
}

void JsonReport::note(const Subject& subject, std::string_view sentence) {
  if (quiet_) return;
  write("notice", {{"device", textOrNull(subject.device)}, {"text", text(sentence)}});
}

void JsonReport::updating(const Subject& subject) {
  if (!quiet_) write("updating", describe(subject));
}

void JsonReport::progressed(const Subject& subject, const Progress& progress) {
  if (quiet_ || !progress.percent) return;
  const QJsonObject step = {{"device", textOrNull(subject.device)},
                            {"percent", *progress.percent},
                            {"phase", text(progress.phase)},
                            {"remaining", textOrNull(progress.remaining)}};
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(last_step_, step) == step) return;
  }
  write("progress", step);
}

void JsonReport::confirming(const Subject& subject, const Verdict& update) {
  if (quiet_) return;
  QJsonObject object = describe(subject);
  object["text"] = allLines(update);
  write("confirming", std::move(object));
}

void JsonReport::ended(const Subject& subject, const Verdict& verdict) {
  QJsonObject object = describe(subject);
  object["outcome"] = text(verdict.outcome);
  object["status"] = static_cast<int>(verdict.status);
  object["text"] = allLines(verdict);
  write("outcome", std::move(object));
}

void JsonReport::engineLine(std::string_view device, std::string_view line) {
  if (quiet_) return;
  std::string label(device);
  if (!label.empty()) label.append(": ");
  put(StandardStream::error, label.append(line));
}

bool JsonReport::ask(std::string_view question) {
  if (::isatty(STDERR_FILENO) == 0) return false;
  const std::lock_guard lock(mutex_);
  is_asking_ = true;
  writeLine(StandardStream::error, question);
  return true;
}

void JsonReport::answered() {
  const std::lock_guard lock(mutex_);
  is_asking_ = false;
  for (const auto& [stream, line] : std::exchange(held_back_, {})) writeLine(stream, line);
}

void JsonReport::write(const char* event, QJsonObject object) {
  object["event"] = event;
  put(StandardStream::output, QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString());
}

// A program that reads the objects needn't wait for a person.
void JsonReport::put(StandardStream stream, std::string_view line) {
  const std::lock_guard lock(mutex_);
  const int descriptor = stream == StandardStream::output ? STDOUT_FILENO : STDERR_FILENO;
  if (is_asking_ && ::isatty(descriptor) != 0) {
    held_back_.emplace_back(stream, line);
  } else {
    writeLine(stream, line);
  }
}

}  // namespace qm5
