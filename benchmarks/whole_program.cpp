// whole_program BLOCKS: the whole program with its windows, but with a device in process that is
// ready at once, so that progress arrives as fast as it can. Presses Next by itself. Writes one
// line of JSON on standard error: seconds of the update, the gaps between two turns of the main
// event loop, paints of the second title and of the bar with the shortest time from one to the next
// but one, and the peak of the resident set in kilobytes. All other times are in milliseconds.
//
// A timer beats every millisecond, as often as the loop comes round to it. So no gap is shorter
// than that, and no key and no drawing waits longer than the longest one.
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "benchmarks/peak_memory.h"
#include "benchmarks/watched_application.h"
#include "platform/system_log.h"
#include "tests/support/ready_qm5.h"

namespace qm5 {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

// Counts how often a widget is painted, and how soon the next paint but one follows at the soonest:
// when one comes late, the next one seems early.
class PaintCount : public QObject {
 public:
  explicit PaintCount(const QString& widget) { findWidget(widget)->installEventFilter(this); }
  int count() const { return count_; }
  double shortest() const { return shortest_.count(); }

 protected:
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() != QEvent::Paint) return false;
    const auto now = Clock::now();
    if (count_++ > 1) shortest_ = std::min<Milliseconds>(shortest_, now - last_but_one_);
    last_but_one_ = std::exchange(last_, now);
    return false;
  }

 private:
  int count_ = 0;
  Clock::time_point last_;
  Clock::time_point last_but_one_;
  Milliseconds shortest_ = std::chrono::hours(1);
};

// What is seen from the first step that the job submits to the finish dialog.
class Record : public QObject {
 public:
  Record() {
    beat_.setTimerType(Qt::PreciseTimer);
    beat_.callOnTimeout(this, [this] {
      const auto now = Clock::now();
      gaps_.push_back(Milliseconds(now - std::exchange(last_, now)).count());
    });
    beat_.start(1);
  }
  void write() {
    gaps_.push_back(Milliseconds(Clock::now() - last_).count());
    std::sort(gaps_.begin(), gaps_.end());
    const auto at = [this](double share) {
      return gaps_[static_cast<std::size_t>(share * static_cast<double>(gaps_.size() - 1))];
    };
    const std::chrono::duration<double> time = Clock::now() - start_;
    std::fprintf(stderr,
                 "{\"seconds\": %.4f, \"p999\": %.3f, \"longest\": %.3f, "
                 "\"title_paints\": %d, \"title_shortest\": %.3f, "
                 "\"bar_paints\": %d, \"bar_shortest\": %.3f, \"kilobytes\": %ld}\n",
                 time.count(), at(0.999), at(1), title_.count(), title_.shortest(), bar_.count(),
                 bar_.shortest(), peakMemory("self"));
  }

 private:
  const Clock::time_point start_ = Clock::now();
  Clock::time_point last_ = start_;
  QTimer beat_;
  std::vector<double> gaps_;
  PaintCount title_{"txtTitle2"};
  PaintCount bar_{"progressBar"};
};

class WholeProgram final : public WatchedApplication {
 public:
  using WatchedApplication::WatchedApplication;

 protected:
  void updateBegan() override { record_ = std::make_unique<Record>(); }
  void updateEnded() override { record_->write(); }

 private:
  std::unique_ptr<Record> record_;
};

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  qm5::setSystemLog([](std::string_view) {});
  new qm5::ReadyLink;
  return (new qm5::WholeProgram(std::strtoul(argv[1], nullptr, 10)))->run(argc, argv);
}
