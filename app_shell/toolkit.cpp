#include "app_shell/toolkit.h"

#include <atomic>

#include "platform/fatal.h"

namespace qm5 {
namespace {

std::atomic<Toolkit*> current = nullptr;

}  // namespace

Toolkit& toolkit() {
  return required(current.load(), "no toolkit has been set");
}

void setToolkit(Toolkit* toolkit) {
  current = toolkit;
}

}  // namespace qm5
