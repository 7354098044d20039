// Publish and subscribe inside the process. A notification goes to the observers of its name, on
// the thread that posts it, before post() returns.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qm5 {

/// What most notifications carry as their object: values by key.
using Dictionary = std::map<std::string, std::any, std::less<>>;

struct Notification {
  std::string_view name;  ///< valid for as long as the notification is
  std::any object;        ///< empty, or what the sender attached
};

/// The value under `key` of a notification's object; nullptr when the object is not a Dictionary,
/// has no such key, or holds another type there. Valid for as long as the notification.
template <typename Value>
const Value* objectValue(const Notification& notification, std::string_view key) {
  const auto* dictionary = std::any_cast<Dictionary>(&notification.object);
  if (dictionary == nullptr) return nullptr;
  const auto found = dictionary->find(key);
  return found == dictionary->end() ? nullptr : std::any_cast<Value>(&found->second);
}

class NotificationCenter {
  struct Entry;

 public:
  using Observer = std::function<void(const Notification&)>;

  /// Keeps an observer registered. Its destructor ends the registration and waits for a delivery
  /// in progress, so an observer must not destroy its own registration. Any thread.
  class Registration {
   public:
    explicit Registration(std::shared_ptr<Entry> entry);
    ~Registration();
    Registration(Registration&&) = default;
    Registration& operator=(Registration&&) = delete;

   private:
    std::shared_ptr<Entry> entry_;
  };

  /// The one centre of the process. Any thread.
  static NotificationCenter& defaultCenter();

  /// Calls `observer` for every notification with that name, from any sender, until the returned
  /// registration is destroyed. Observers are called in the order of registration, each by one
  /// thread at a time. The name is copied. Any thread.
  [[nodiscard]] Registration addObserver(std::string_view name, Observer observer);

  /// Calls the observers of `notification.name` and returns when all of them have returned. Any
  /// thread, but not from an observer of that name.
  void post(const Notification& notification);

 private:
  std::mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_;
};

}  // namespace qm5
