#include "platform/notification_center.h"

#include <utility>

namespace qm5 {

struct NotificationCenter::Entry {
  std::string name;
  std::mutex mutex;  // held while the observer runs
  Observer observer;
};

NotificationCenter::Registration::Registration(std::shared_ptr<Entry> entry)
    : entry_(std::move(entry)) {}

NotificationCenter::Registration::~Registration() {
  if (!entry_) return;  // moved from
  const std::lock_guard lock(entry_->mutex);
  entry_->observer = nullptr;
}

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: the threads that post live as long as the process.
  static auto* const center = new NotificationCenter;
  return *center;
}

NotificationCenter::Registration NotificationCenter::addObserver(std::string_view name,
                                                                 Observer observer) {
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->observer = std::move(observer);
  const std::lock_guard lock(mutex_);
  std::erase_if(entries_, [](const auto& known) { return known.expired(); });
  entries_.push_back(entry);
  return Registration(std::move(entry));
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::shared_ptr<Entry>> matching;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& known : entries_) {
      auto entry = known.lock();
      if (entry && entry->name == notification.name) matching.push_back(std::move(entry));
    }
  }
  for (const auto& entry : matching) {
    const std::lock_guard lock(entry->mutex);
    if (entry->observer) entry->observer(notification);
  }
}

}  // namespace qm5
