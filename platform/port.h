// What all ports have in common: an interface that an adapter implements, and the one
// implementation that the process uses.
#pragma once

#include <atomic>
#include <string_view>

#include "platform/fatal.h"

namespace qm5 {

/// Base of the interfaces that make up a port. Not copyable: callers hold references.
class PortObject {
 public:
  PortObject(const PortObject&) = delete;
  PortObject& operator=(const PortObject&) = delete;

 protected:
  PortObject() = default;
  ~PortObject() = default;
};

/// Refers to the adapter of one port that the process uses. Does not own it.
template <typename Port>
class PortSlot {
 public:
  /// Returns the adapter; fatal, with `missing` as the reason, when none has been set. Any thread.
  Port& get(std::string_view missing) const { return required(adapter_.load(), missing); }
  /// Sets the adapter, before the first get(); nullptr removes it. Any thread.
  void set(Port* adapter) { adapter_ = adapter; }

 private:
  std::atomic<Port*> adapter_ = nullptr;
};

}  // namespace qm5
