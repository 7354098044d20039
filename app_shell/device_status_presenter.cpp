#include "app_shell/device_status_presenter.h"

#include <string>
#include <utility>

#include "app_shell/ports/application.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

struct Shown {
  StatusKind kind;
  std::string text;
};

// The lines are broken here, because the window has a fixed width.
Shown several(const DeviceState& state) {
  std::string text = std::to_string(state.present.size());
  text.append(" QM5s are connected. An update goes to the one ");
  text.append(state.location.empty() ? "connected last." : "at port " + state.location + ".");
  return {StatusKind::caution,
          text.append("\nTo update another one, unplug them all and plug in that one.")};
}

Shown shownFor(const DeviceState& state) {
  switch (state.availability) {
    case DeviceAvailability::connected:
      if (state.present.size() > 1) return several(state);
      return {StatusKind::good, "A QM5 is connected."};
    case DeviceAvailability::missed:
      return {StatusKind::caution,
              "A QM5 is connected, but it came before the updater was ready.\n"
              "Unplug it and plug it in again."};
    case DeviceAvailability::notFollowed:
      return {StatusKind::caution,
              "A QM5 is connected, but the updater followed another one, "
              "which has left. Unplug this one and plug it in again."};
    case DeviceAvailability::notPermitted:
      return {StatusKind::caution,
              "A QM5 is connected, but you may not open it. Have the package "
              "qm5-updater or its udev rule installed, then unplug the QM5 "
              "and plug it in again."};
    case DeviceAvailability::unusable:
      return {StatusKind::caution,
              "A QM5 is connected, but it could not be opened.\n"
              "Unplug it and plug it in again."};
    case DeviceAvailability::absent:
      break;
  }
  return {StatusKind::information, "No QM5 is connected."};
}

}  // namespace

std::shared_ptr<DeviceStatusPresenter> DeviceStatusPresenter::follow() {
  std::shared_ptr<DeviceStatusPresenter> presenter(new DeviceStatusPresenter);
  // The bus reports on threads of its own, and may outlast the window.
  presenter->presence_.emplace([weak = std::weak_ptr(presenter)] {
    application().mainQueueAsync([weak] {
      if (const auto kept = weak.lock()) kept->show();
    });
  });
  return presenter;
}

void DeviceStatusPresenter::showIn(const std::shared_ptr<StatusIndicator>& indicator) {
  required(indicator, "no deviceStatus");
  indicator_ = indicator;
  show();
}

void DeviceStatusPresenter::setChanged(std::function<void()> changed) {
  changed_ = std::move(changed);
}

DeviceState DeviceStatusPresenter::state() const {
  return presence_->state();
}

void DeviceStatusPresenter::show() {
  const auto [kind, text] = shownFor(state());
  if (const auto indicator = indicator_.lock()) indicator->setStatus(kind, text);
  changed_();
}

}  // namespace qm5
