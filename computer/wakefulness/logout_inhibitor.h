// Has the session manager hold back a log-out, over D-Bus.
#pragma once

#include <QDBusConnection>
#include <QString>
#include <optional>

namespace qm5 {

/// Holds a log-out back for as long as it lives, where the session has GNOME's session manager or
/// one with the same interface: its log-out dialog names the program and the reason. Others ask
/// programs by X's session management, which is Qt's. Without one, a line in the log says so.
/// Waits for the session bus, at its end too. One at a time.
class LogoutInhibitor {
 public:
  explicit LogoutInhibitor(const QString& reason);
  ~LogoutInhibitor();
  LogoutInhibitor(const LogoutInhibitor&) = delete;
  LogoutInhibitor& operator=(const LogoutInhibitor&) = delete;

 private:
  QDBusConnection session_bus_;
  std::optional<unsigned> cookie_;  // by which the session manager knows the inhibitor
};

}  // namespace qm5
