#include "app_command/json_report.h"

#include <unistd.h>

#include <QJsonDocument>
#include <QString>
#include <utility>

#include "platform/line_writer.h"

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

}  // namespace

void JsonReport::listed(const std::vector<AttachedDevice>& devices) {
  for (const AttachedDevice& each : devices) {
    write("device", {{"device", textOrNull(each.location)},
                     {"version", textOrNull(each.version.value_or(""))},
                     {"access", nameOf(each.access)}});
  }
}

void JsonReport::note(std::string_view sentence) {
  if (!quiet_) write("notice", {{"text", text(sentence)}});
}

void JsonReport::updating(const Subject& subject) {
  if (!quiet_) write("updating", describe(subject));
}

void JsonReport::progressed(const Subject& subject, const Progress& progress) {
  if (quiet_ || !progress.percent) return;
  const QJsonObject step = {{"device", textOrNull(subject.device)},
                            {"percent", *progress.percent},
                            {"phase", text(progress.phase)}};
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

void JsonReport::engineLine(std::string_view line) {
  if (!quiet_) writeLine(StandardStream::error, line);
}

bool JsonReport::ask(std::string_view question) {
  if (::isatty(STDERR_FILENO) == 0) return false;
  writeLine(StandardStream::error, question);
  return true;
}

void JsonReport::write(const char* event, QJsonObject object) {
  object["event"] = event;
  writeLine(StandardStream::output,
            QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString());
}

}  // namespace qm5
