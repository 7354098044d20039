#include "app_shell/device_status_presenter.h"

#include <utility>

#include "app_shell/ports/application.h"
#include "platform/fatal.h"
#include "update_run/device_state_text.h"

namespace qm5 {
namespace {

StatusKind kindOf(const DeviceState& state) {
  if (state.availability == DeviceAvailability::absent) return StatusKind::information;
  const bool is_one_connected =
      state.availability == DeviceAvailability::connected && state.present.size() <= 1;
  return is_one_connected ? StatusKind::good : StatusKind::caution;
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
  const DeviceState now = state();
  if (const auto indicator = indicator_.lock()) indicator->setStatus(kindOf(now), describe(now));
  changed_();
}

}  // namespace qm5
