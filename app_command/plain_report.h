// Plain lines for a person: on standard output, and on standard error how a run failed. On a
// terminal the last line shows the progress.
#pragma once

#include <deque>
#include <mutex>

#include "app_command/report.h"
#include "platform/line_writer.h"

namespace qm5 {

class PlainReport final : public Report {
 public:
  /// `quiet`: errors and questions alone.
  explicit PlainReport(bool quiet);

  void listed(const std::vector<AttachedDevice>& devices) override;
  void note(std::string_view text) override;
  void updating(const Subject& subject) override;
  void progressed(const Subject& subject, const Progress& progress) override;
  void confirming(const Subject& subject, const Verdict& update) override;
  void ended(const Subject& subject, const Verdict& verdict) override;
  void engineLine(std::string_view line) override;
  bool ask(std::string_view question) override;
  void answered() override;

 private:
  void write(std::string_view line);
  void drawBar(const Progress& progress);
  void writeLastLines();

  const bool quiet_;
  const bool has_bar_;              // standard output is a terminal that can move its cursor
  std::mutex mutex_;                // guards what follows
  std::string bar_;                 // the line of progress, where it is the last one
  std::string phase_;               // the last one that was written
  bool is_asking_ = false;          // the terminal has a question
  std::deque<std::string> engine_;  // the engine's newest lines
};

}  // namespace qm5
