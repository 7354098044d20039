// What the command says: to a person, or as JSON to a program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app_command/verdict.h"
#include "device_link/attached_devices.h"
#include "platform/port.h"

namespace qm5 {

/// What is known of the QM5 so far; texts are empty where something is not known.
struct Subject {
  std::string device = {};   ///< the kernel's name of its port, as in "1-4.2"
  std::string version = {};  ///< what it reported before the update
  std::string target_version = {};
};

/// How far an update is.
struct Progress {
  std::optional<double> percent;  ///< empty while the QM5 has not opened the update
  std::string_view phase;         ///< what is going on, in a sentence
  std::string elapsed;
  std::string remaining;  ///< empty while that can't be told
};

/// What becomes of a QM5.
class UpdateEvents : public PortObject {
 public:
  virtual ~UpdateEvents() = default;

  /// Something that a person wants to know. Without a device in `subject`, it concerns them all.
  virtual void note(const Subject& subject, std::string_view text) = 0;
  /// The QM5 has opened the update.
  virtual void updating(const Subject& subject) = 0;
  /// Called at each change, and about once per second.
  virtual void progressed(const Subject& subject, const Progress& progress) = 0;
  /// The update has succeeded, and the power cycle is awaited.
  virtual void confirming(const Subject& subject, const Verdict& update) = 0;
  /// The last call about that QM5.
  virtual void ended(const Subject& subject, const Verdict& verdict) = 0;
};

/// Lines are queued, so no call waits for a reader. Any thread.
class Report : public UpdateEvents {
 public:
  /// A QM5 that is on the bus.
  virtual void listed(const AttachedDevice& device) = 0;
  /// A line of the layers below; of another process, with the port of the QM5 that it updates.
  virtual void engineLine(std::string_view device, std::string_view line) = 0;

  /// Puts a question to the terminal. What would be written there waits until answered(). False:
  /// there is no terminal to put it to.
  virtual bool ask(std::string_view question) = 0;
  virtual void answered() = 0;
};

}  // namespace qm5
