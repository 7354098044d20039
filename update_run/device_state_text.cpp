#include "update_run/device_state_text.h"

namespace qm5 {
namespace {

std::string describeSeveral(const DeviceState& state) {
  std::string text = std::to_string(state.present.size());
  text.append(" QM5s are connected");
  if (state.availability == DeviceAvailability::connected) {
    text.append(". An update goes to the one ");
    text.append(state.location.empty() ? "connected last." : "at port " + state.location + ".");
    return text.append("\nTo update another one, unplug them all and plug in that one.");
  }
  const bool is_permitted = state.availability != DeviceAvailability::notPermitted;
  text.append(", but none can be used.");
  return text.append(is_permitted
                         ? "\nUnplug them all and plug in one."
                         : " Have the package qm5-updater-common or its udev rule installed.");
}

}  // namespace

std::string describe(const DeviceState& state) {
  if (state.present.size() > 1) return describeSeveral(state);
  switch (state.availability) {
    case DeviceAvailability::connected:
      return "A QM5 is connected.";
    case DeviceAvailability::missed:
      return "A QM5 is connected, but it came before the updater was ready.\n"
             "Unplug it and plug it in again.";
    case DeviceAvailability::notFollowed:
      return "A QM5 is connected, but the updater followed another one, "
             "which has left. Unplug this one and plug it in again.";
    case DeviceAvailability::notPermitted:
      return "A QM5 is connected, but you may not open it. Have the package "
             "qm5-updater-common or its udev rule installed. The QM5 need not be "
             "plugged in again.";
    case DeviceAvailability::unusable:
      return "A QM5 is connected, but it could not be opened.\n"
             "Unplug it and plug it in again.";
    case DeviceAvailability::absent:
      break;
  }
  return "No QM5 is connected.";
}

}  // namespace qm5
