// Notifications that the desktop shows to a person who is busy with another program.
// Production: app_shell/notifications/. Tests: tests/support/scripted_application.h.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/port.h"

namespace qm5 {

/// Main thread.
class DesktopNotifications : public PortObject {
 public:
  virtual ~DesktopNotifications() = default;

  /// Shows a notification, UTF-8, until the returned token is dropped or the desktop takes it away.
  /// Returns at once, before the desktop has answered; where it shows none, the system log says so.
  /// `pressed` is called, on any thread, when the person presses the notification, with the
  /// activation token that the desktop gives for that; it may be empty. The returned token may be
  /// dropped on any thread.
  virtual std::shared_ptr<void> show(
      const std::string& title, const std::string& text,
      std::function<void(const std::string& activation_token)> pressed) = 0;
};

/// The adapter that the process uses; fatal when none has been set. Any thread.
DesktopNotifications& desktopNotifications();
/// Sets it, before the first update. `notifications` stays the caller's.
void setDesktopNotifications(DesktopNotifications* notifications);

}  // namespace qm5
