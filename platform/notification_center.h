// Publish and subscribe inside the process: notifications by name, delivered
// synchronously on the posting thread.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qm5 {

/// What most notifications carry as their object: values by key.
using Dictionary = std::map<std::string, std::any>;

struct Notification {
  std::string name;
  std::any object;  ///< empty, or what the sender attached
};

/// The value under `key` of a notification's object; nullptr when the object is not a
/// dictionary or holds no such value.
template <typename Value>
const Value* objectValue(const Notification& notification, const std::string& key) {
  const auto* dictionary = std::any_cast<Dictionary>(&notification.object);
  if (dictionary == nullptr) return nullptr;
  const auto found = dictionary->find(key);
  return found == dictionary->end() ? nullptr : std::any_cast<Value>(&found->second);
}

class NotificationCenter {
  struct Entry;

 public:
  using Observer = std::function<void(const Notification&)>;

  /// Keeps an observer registered. Letting go of it ends the registration and waits for
  /// a delivery in progress, so an observer must not let go of its own.
  class Registration {
   public:
    explicit Registration(std::shared_ptr<Entry> entry);
    ~Registration();
    Registration(Registration&&) = default;
    Registration& operator=(Registration&&) = delete;

   private:
    std::shared_ptr<Entry> entry_;
  };

  /// The one centre of the process.
  static NotificationCenter& defaultCenter();

  /// Has `observer` called for every notification of that name, from any sender, until
  /// the registration is let go of. Observers are called in the order of registration,
  /// each by one thread at a time.
  [[nodiscard]] Registration addObserver(std::string name, Observer observer);

  /// Calls the observers of `notification.name` and returns when all have returned.
  /// Any thread, but not from an observer of that name.
  void post(const Notification& notification);

 private:
  std::mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_;
};

}  // namespace qm5
