// Notifications through the desktop's service org.freedesktop.Notifications, over D-Bus. macOS has
// no such service.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <functional>
#include <map>
#include <string>

#include "app_shell/ports/desktop_notifications.h"

namespace qm5 {

/// Made on the main thread, and never destroyed: signals of the service may come at any time.
class NotificationService : public QObject, public DesktopNotifications {
  Q_OBJECT

 public:
  using Pressed = std::function<void(const std::string& activation_token)>;

  std::shared_ptr<void> show(const std::string& title, const std::string& text,
                             Pressed pressed) override;

 private:
  // The service's signals. Each goes to all programs: `id` says whose notification it is. The token
  // comes before the action that it is for.
  Q_SLOT void noteToken(uint id, const QString& activation_token);
  Q_SLOT void noteAction(uint id);

  struct Shown {
    Pressed pressed;
    std::string activation_token;
  };

  // All on the queue.
  QDBusConnection sessionBus();
  uint notify(const QString& title, const QString& text);
  void close(uint id);
  std::map<uint, Shown> shown_;  // by the service's ids
};

}  // namespace qm5
