#include "app_shell/bus_status.h"

#include <string_view>
#include <utility>

#include "platform/fatal.h"

namespace qm5 {
namespace {

struct Shown {
  Status status;
  std::string_view text;
};

// Broken into lines here, as the window does not grow.
Shown shownFor(BusState state) {
  switch (state) {
    case BusState::connected:
      return {Status::good, "A QM5 is connected."};
    case BusState::notPermitted:
      return {Status::caution,
              "A QM5 is connected, but you may not open it. Have the package\n"
              "qm5-updater or its udev rule installed, then unplug the QM5\n"
              "and plug it in again."};
    case BusState::unusable:
      return {Status::caution,
              "A QM5 is connected, but it does not respond.\n"
              "Unplug it and plug it in again."};
    case BusState::absent:
      break;
  }
  return {Status::information, "No QM5 is connected."};
}

}  // namespace

std::shared_ptr<BusStatus> BusStatus::follow() {
  std::shared_ptr<BusStatus> status(new BusStatus);
  // The bus reports on threads of its own, and may outlast the window.
  status->presence_.emplace([weak = std::weak_ptr(status)] {
    toolkit().mainQueueAsync([weak] {
      if (const auto kept = weak.lock()) kept->show();
    });
  });
  return status;
}

void BusStatus::showIn(std::shared_ptr<StatusLine> line) {
  line_ = std::move(line);
  show();
}

void BusStatus::show() {
  const auto [status, text] = shownFor(presence_->state());
  required(line_, "no status line for the bus").setStatus(status, text);
}

}  // namespace qm5
