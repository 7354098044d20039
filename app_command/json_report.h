// One JSON object per line on standard output, as docs/qm5-update.schema.json describes them. The
// engine's lines go to standard error.
#pragma once

#include <QJsonObject>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "app_command/report.h"
#include "platform/line_writer.h"

namespace qm5 {

/// Calls what a line of a JsonReport stands for; false when it is none.
bool readJsonLine(std::string_view line, UpdateEvents& events);

class JsonReport final : public Report {
 public:
  /// `quiet`: the outcome alone, and no lines of the engine.
  explicit JsonReport(bool quiet) : quiet_(quiet) {}

  void listed(const AttachedDevice& device) override;
  void note(const Subject& subject, std::string_view text) override;
  void updating(const Subject& subject) override;
  void progressed(const Subject& subject, const Progress& progress) override;
  void confirming(const Subject& subject, const Verdict& update) override;
  void ended(const Subject& subject, const Verdict& verdict) override;
  void engineLine(std::string_view device, std::string_view line) override;
  bool ask(std::string_view question) override;
  void answered() override;

 private:
  void write(const char* event, QJsonObject object);
  void put(StandardStream stream, std::string_view line);

  const bool quiet_;
  std::mutex mutex_;                                               // guards what follows
  QJsonObject last_step_;                                          // of the progress
  bool is_asking_ = false;                                         // the terminal has a question
  std::vector<std::pair<StandardStream, std::string>> held_back_;  // until it is answered
};

}  // namespace qm5
