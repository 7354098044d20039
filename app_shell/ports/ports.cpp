// The adapters of the shell's ports that this process uses.

#include "app_shell/ports/application.h"
#include "app_shell/ports/desktop_notifications.h"
#include "app_shell/ports/package.h"
#include "app_shell/ports/wakefulness.h"

namespace qm5 {
namespace {

PortSlot<Application> application_slot;
PortSlot<Package> package_slot;
PortSlot<Wakefulness> wakefulness_slot;
PortSlot<DesktopNotifications> notifications_slot;

}  // namespace

Application& application() {
  return application_slot.get("no application has been set");
}

void setApplication(Application* application) {
  application_slot.set(application);
}

Package& applicationPackage() {
  return package_slot.get("no package has been set");
}

void setApplicationPackage(Package* package) {
  package_slot.set(package);
}

Wakefulness& wakefulness() {
  return wakefulness_slot.get("no wakefulness has been set");
}

void setWakefulness(Wakefulness* wakefulness) {
  wakefulness_slot.set(wakefulness);
}

DesktopNotifications& desktopNotifications() {
  return notifications_slot.get("no desktop notifications have been set");
}

void setDesktopNotifications(DesktopNotifications* notifications) {
  notifications_slot.set(notifications);
}

}  // namespace qm5
