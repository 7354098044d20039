// An open file descriptor that one owner closes.
#pragma once

#include <unistd.h>

#include <utility>

namespace qm5 {

class Descriptor {
 public:
  /// Takes over an open descriptor, or -1 for none.
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Descriptor() {
    if (isOpen()) ::close(descriptor_);
  }
  int get() const { return descriptor_; }
  bool isOpen() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

}  // namespace qm5
