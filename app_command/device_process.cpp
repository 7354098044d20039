#include "app_command/device_process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <QCoreApplication>
#include <cmath>
#include <utility>

#include "app_command/json_report.h"
#include "update_run/target_version.h"

namespace qm5 {
namespace {

QStringList argumentsFor(const std::string& device, const CommandOptions& options, int bus_claim) {
  const auto text = [](const std::string& value) { return QString::fromStdString(value); };
  QStringList arguments = {"--json", "--device", text(device), "--claim",
                           QString::number(bus_claim)};
  if (options.only_check) arguments << "--check";
  if (options.image) arguments << "--image" << text(*options.image);
  if (options.target) arguments << "--target" << text(*options.target);
  if (options.confirm && std::isinf(*options.confirm)) arguments << "--confirm";
  if (options.confirm && !std::isinf(*options.confirm))
    arguments << "--confirm=" + QString::number(*options.confirm, 'f');
  return arguments;
}

// Between fork and exec: system calls alone.
void prepareProcess(int bus_claim) {
  ::setsid();  // the terminal's Ctrl-C goes to the parent, which asks once for all
  ::fcntl(bus_claim, F_SETFD, 0);
#ifdef __linux__
  // A parent that is killed, or that a hang-up ends: whoever waits ends too, an update goes on.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
#endif
}

}  // namespace

DeviceProcess::DeviceProcess(std::string device, Shared& shared)
    : shared_(shared), device_(std::move(device)) {
  subject_.device = device_;
  subject_.target_version = shared_.options.target.value_or(std::string(kTargetVersion));
}

void DeviceProcess::start() {
  process_.setProgram(QCoreApplication::applicationFilePath());
  process_.setArguments(argumentsFor(device_, shared_.options, shared_.bus_claim));
  process_.setChildProcessModifier([claim = shared_.bus_claim] { prepareProcess(claim); });
  QObject::connect(&process_, &QProcess::readyReadStandardOutput,
                   [this] { readLines(QProcess::StandardOutput); });
  QObject::connect(&process_, &QProcess::readyReadStandardError,
                   [this] { readLines(QProcess::StandardError); });
  QObject::connect(&process_, &QProcess::finished, [this] { processEnded(); });
  const auto failed = [this](QProcess::ProcessError error) {
    if (error == QProcess::FailedToStart) processEnded();
  };
  QObject::connect(&process_, &QProcess::errorOccurred, &process_, failed, Qt::QueuedConnection);
  const std::lock_guard lock(mutex_);
  if (status_) return;
  process_.start(QIODevice::ReadOnly);
  id_ = process_.processId();
}

void DeviceProcess::requestEnd() {
  process_.terminate();
}

void DeviceProcess::endAtOnce() {
  const std::lock_guard lock(mutex_);
  if (status_) return;
  if (id_ > 0) ::kill(static_cast<pid_t>(id_), SIGKILL);
  concludeLocked(has_updated_ ? endedUnconfirmedVerdict() : endedVerdict(isUpdatingLocked()));
}

bool DeviceProcess::isUpdating() const {
  const std::lock_guard lock(mutex_);
  return isUpdatingLocked();
}

std::optional<ExitStatus> DeviceProcess::status() const {
  const std::lock_guard lock(mutex_);
  return status_;
}

// What concerns all QM5s is reported once.
void DeviceProcess::note(const Subject& subject, std::string_view text) {
  if (!subject.device.empty() || shared_.common_notes.emplace(text).second)
    shared_.report.note(subject, text);
}

void DeviceProcess::updating(const Subject& subject) {
  {
    const std::lock_guard lock(mutex_);
    subject_ = subject;
  }
  shared_.report.updating(subject);
}

void DeviceProcess::progressed(const Subject& subject, const Progress& progress) {
  shared_.report.progressed(subject, progress);
}

void DeviceProcess::confirming(const Subject& subject, const Verdict& update) {
  shared_.report.confirming(subject, update);
  {
    const std::lock_guard lock(mutex_);
    has_updated_ = true;
  }
  shared_.changed();
}

// Reported once the process has ended: lines of the engine may still come.
void DeviceProcess::ended(const Subject& subject, const Verdict& verdict) {
  const std::lock_guard lock(mutex_);
  subject_ = subject;
  verdict_ = verdict;
}

void DeviceProcess::readLines(QProcess::ProcessChannel channel) {
  process_.setReadChannel(channel);
  while (process_.canReadLine()) {
    const std::string line = process_.readLine().trimmed().toStdString();
    const bool is_event = channel == QProcess::StandardOutput && readJsonLine(line, *this);
    if (!is_event) shared_.report.engineLine(device_, line);
  }
}

void DeviceProcess::processEnded() {
  {
    const std::lock_guard lock(mutex_);
    if (!status_) concludeLocked(lostProcessVerdict(isUpdatingLocked()));
  }
  shared_.changed();
}

bool DeviceProcess::isUpdatingLocked() const {
  return !status_ && !verdict_ && !has_updated_ && !shared_.options.only_check;
}

void DeviceProcess::concludeLocked(const Verdict& verdict) {
  const Verdict& known = verdict_ ? *verdict_ : verdict;
  status_ = known.status;
  shared_.report.ended(subject_, known);
}

}  // namespace qm5
