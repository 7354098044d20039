#include "platform/fatal.h"

#include <cstdio>
#include <cstdlib>

namespace qm5 {

void fatal(std::string_view reason) {
  std::fprintf(stderr, "qm5-updater: fatal error: %.*s\n", static_cast<int>(reason.size()),
               reason.data());
  std::abort();
}

}  // namespace qm5
