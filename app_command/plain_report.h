// Plain lines for a person: on standard output, and on standard error how a run failed. On a
// terminal the last line shows the progress; where several QM5s are updated, one line for each.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "app_command/port_order.h"
#include "app_command/report.h"
#include "platform/line_writer.h"

namespace qm5 {

class PlainReport final : public Report {
 public:
  /// `quiet`: errors and questions alone. `many`: of several QM5s, so each line says of which.
  PlainReport(bool quiet, bool many);

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
  using Bars = std::map<std::string, std::string, PortOrder>;

  std::string keyOf(const Subject& subject) const;
  std::string labelOf(const Subject& subject) const;
  std::vector<std::string> lines(const Subject& subject, const Verdict& verdict) const;
  void write(std::string_view line, StandardStream stream = StandardStream::output);
  void drawBar(const std::string& device, const std::string& bar);
  void removeBar(const std::string& device);
  void eraseBars();
  void drawBars();
  void writeLastLines(const Subject& subject);

  const bool quiet_;
  const bool many_;
  const bool has_bars_;  // standard output is a terminal that can move its cursor
  std::mutex mutex_;     // guards what follows
  Bars bars_;            // the lines of progress, where they are the last ones; by device
  std::map<std::string, std::string> phases_;  // the last ones that were written
  bool is_asking_ = false;                     // the terminal has a question
  std::vector<std::pair<StandardStream, std::string>> held_back_;  // until it is answered
  std::map<std::string, std::deque<std::string>> engine_;          // the engine's newest lines
};

}  // namespace qm5
