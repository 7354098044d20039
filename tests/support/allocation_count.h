// How often the process has asked for memory: replaces the global operator new.
#pragma once

#include <cstddef>

namespace qm5 {

/// Of this thread, since its start.
std::size_t allocationCount();

}  // namespace qm5
