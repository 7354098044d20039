// The adapter of the shell's port that this process uses.

#include "app_shell/ports/application.h"
#include "app_shell/ports/desktop_notifications.h"

namespace qm5 {
namespace {

PortSlot<Application> application_slot;
PortSlot<DesktopNotifications> notifications_slot;

}  // namespace

Application& application() {
  return application_slot.get("no application has been set");
}

void setApplication(Application* application) {
  application_slot.set(application);
}

DesktopNotifications& desktopNotifications() {
  return notifications_slot.get("no desktop notifications have been set");
}

void setDesktopNotifications(DesktopNotifications* notifications) {
  notifications_slot.set(notifications);
}

}  // namespace qm5
