#include "tests/support/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t count = 0;

}  // namespace

namespace qm5 {

std::size_t allocationCount() {
  return count;
}

}  // namespace qm5

// The other forms of new for what is not over-aligned end in this one, those of delete in
// std::free. Nothing here is over-aligned.
void* operator new(std::size_t size) {
  ++count;
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  std::abort();
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
