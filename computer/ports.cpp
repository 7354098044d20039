// The adapters of the computer's ports that this process uses.

#include "computer/package.h"
#include "computer/wakefulness.h"

namespace qm5 {
namespace {

PortSlot<Package> package_slot;
PortSlot<Wakefulness> wakefulness_slot;

}  // namespace

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

}  // namespace qm5
