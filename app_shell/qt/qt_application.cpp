#include "app_shell/qt/qt_application.h"

#include <unistd.h>

#include <QApplication>
#include <QEventLoop>
#include <QIcon>
#include <QSessionManager>
#include <QThread>
#include <atomic>
#include <clocale>
#include <cstdlib>
#include <new>
#include <utility>

#include "app_shell/qt/alert_dialog.h"
#include "app_shell/qt/layouts.h"
#include "app_shell/qt/qt_window.h"
#include "main_queue/main_queue.h"
#include "platform/fatal.h"
#include "platform/line_writer.h"
#include "platform/system_log.h"

namespace qm5 {

namespace {

// Qt has taken the person's locale for the whole process. The program's texts are English,
// the system's messages in them too, and its numbers have a point.
void keepTextsOutOfTheLocale() {
  std::setlocale(LC_NUMERIC, "C");
  std::setlocale(LC_MESSAGES, "C");
}

QIcon applicationIcon() {
  QIcon icon;
  for (const char* size :
       {"16x16", "22x22", "24x24", "32x32", "48x48", "64x64", "128x128", "256x256"}) {
    icon.addFile(QStringLiteral("%1/../share/icons/hicolor/%2/apps/qm5-updater.png")
                     .arg(QCoreApplication::applicationDirPath(), QLatin1String(size)));
  }
  return icon;
}

// Qt itself would write to standard error and wait there for a reader who has stopped reading.
void writeMessage(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  const std::string line = qFormatLogMessage(type, context, message).toStdString();
  if (type == QtFatalMsg) fatal(line);
  writeLine(StandardStream::error, line);
}

// An event for which there is no memory is lost; all else goes on, an update above all.
class GuardedApplication final : public QApplication {
 public:
  using QApplication::QApplication;

  bool notify(QObject* receiver, QEvent* event) override try {
    return QApplication::notify(receiver, event);
  } catch (const std::bad_alloc&) {
    qWarning("There is not enough memory for all that the windows are to do.");
    return true;
  }
};

// The one that serves events.
std::atomic<QtApplication*> serving = nullptr;

}  // namespace

QtApplication::QtApplication(std::function<void()> display_lost)
    : display_lost_(std::move(display_lost)), main_queue_(std::make_unique<MainQueue>()) {
  qInstallMessageHandler(writeMessage);
}

QtApplication::~QtApplication() = default;

int QtApplication::applicationMain(int argc, char** argv, const MainStoryboard& storyboard) {
  QApplication::setHighDpiScaleFactorRoundingPolicy(
      Qt::HighDpiScaleFactorRoundingPolicy::PassThrough);
  // Its display name stays unset: Qt would add it to every window's title.
  QApplication::setApplicationName("QM5 Updater");
  QApplication::setDesktopFileName("qm5-updater");
  GuardedApplication application(argc, argv);
  keepTextsOutOfTheLocale();
  QApplication::setQuitOnLastWindowClosed(false);
  delegate_ = storyboard.makeDelegate();
  connectDelegateTo(application);
  auto layout = makeMainLayout();
  // The icon is not in the window, so the window does not wait for it.
  layout->setPainted([] { QApplication::setWindowIcon(applicationIcon()); });
  main_window_ = std::make_shared<QtWindow>(*main_queue_, std::move(layout));
  main_controller_ = storyboard.makeMainController(main_window_);
  main_window_->show();
  delegate_->applicationDidFinishLaunching();
  // The last one to be registered is called first, before what Qt and others take apart.
  [[maybe_unused]] static const int registered = std::atexit(endWithoutDisplay);
  serving = this;
  const int status = QApplication::exec();
  serving = nullptr;
  // Here the desktop has asked the program to quit. Jobs may be at work, so nothing that
  // they use is taken apart.
  terminate();
  return status;
}

void QtApplication::connectDelegateTo(QApplication& application) {
  QObject::connect(&application, &QApplication::lastWindowClosed, [this] { lastWindowClosed(); });
  QObject::connect(&application, &QApplication::commitDataRequest,
                   [this](QSessionManager& session) { sessionEnds(session); });
  QObject::connect(&application, &QApplication::applicationStateChanged,
                   [this](Qt::ApplicationState state) {
                     delegate_->applicationIsActive(state == Qt::ApplicationActive);
                   });
}

// Qt's plug-in for X ends the process by exit(), on the main thread, when the display has gone;
// that for Wayland by _exit(), on whichever thread notices first. What must not be cut off goes on
// without a display then. At any other end none serves, or the process is one that has been forked
// to start another program.
void QtApplication::endWithoutDisplay() {
  const QtApplication* const application = serving;
  if (!application || application->process_ != ::getpid()) return;
  application->main_queue_->perform([application] {
    application->display_lost_();
    log("The display has gone.");
    endProcess(application->delegate_->applicationLostDisplay());
  });
  while (true) ::pause();  // the main thread ends the process
}

void QtApplication::showNotice(int argc, char** argv, const Alert& alert) {
  QApplication::setApplicationName("QM5 Updater");
  QApplication::setDesktopFileName("qm5-updater");
  QApplication application(argc, argv);
  QApplication::setWindowIcon(applicationIcon());
  AlertDialog::show(
      alert, [](int) { QApplication::exit(); }, nullptr);
  QApplication::exec();
}

void QtApplication::lastWindowClosed() {
  if (delegate_->applicationShouldTerminateAfterLastWindowClosed()) terminate();
}

std::shared_ptr<Window> QtApplication::mainWindow() {
  return main_window_;
}

void QtApplication::runModalForWindow(const std::shared_ptr<Window>& window) {
  std::static_pointer_cast<QtWindow>(window)->native().makeModal();
  QEventLoop run;
  modal_runs_.push_back(&run);
  run.exec();
  modal_runs_.pop_back();
}

void QtApplication::stopModal() {
  main_queue_->perform([this] {
    if (!modal_runs_.empty()) modal_runs_.back()->exit();
  });
}

void QtApplication::terminate() {
  if (delegate_) delegate_->applicationWillTerminate();
  endProcess(0);
}

void QtApplication::requestTermination(std::function<void()> declined) {
  main_queue_->async([this, declined = std::move(declined)] {
    if (delegate_->applicationShouldTerminate(declined)) terminate();
  });
}

void QtApplication::sessionEnds(QSessionManager& session) {
  if (delegate_->applicationShouldTerminate([] {})) return terminate();
  // A refusal counts only with the leave to ask. That it is granted is of no matter: where it
  // is not, the session ends whatever a program says.
  session.allowsInteraction();
  session.cancel();
}

void QtApplication::activate(const std::string& activation_token) {
  // Starts and presses are reported on threads of their own.
  if (QThread::currentThread() != qApp->thread())
    fatal("windows are activated off the main thread");
  // Under Wayland, Qt takes the token from there and from nowhere else; elsewhere the window
  // manager goes by itself. The process has made room for it in the environment at its start.
  const bool needs_token = QApplication::platformName().startsWith("wayland");
  if (needs_token && !activation_token.empty())
    qputenv("XDG_ACTIVATION_TOKEN", activation_token.c_str());
  // The token is good for one window: the one that the person can use now. Some window managers
  // minimise the windows that it stands on as well, others leave it behind.
  QWidget* const modal = QApplication::activeModalWidget();
  if (needs_token && activation_token.empty()) QApplication::alert(modal ? modal : mainWidget());
  if (!modal) return main_window_->makeKeyAndOrderFront();
  for (QWidget* window = modal; window; window = window->parentWidget()) {
    window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
  }
  modal->raise();
  modal->activateWindow();
}

void QtApplication::mainQueueAsync(std::function<void()> step) {
  main_queue_->async(std::move(step));
}

std::shared_ptr<Window> QtApplication::instantiateWindow(std::string_view storyboard,
                                                         std::string_view identifier) {
  if (storyboard != "Main" || identifier != "ProgressWindow") return nullptr;
  return std::make_shared<QtWindow>(*main_queue_, makeProgressLayout(mainWidget()));
}

// Titled only is the one style that there is.
std::shared_ptr<Window> QtApplication::makeWindow(Rect content, WindowStyle) {
  auto window = std::make_shared<QtWindow>(*main_queue_, content.size, mainWidget());
  window->setFrameOrigin(content.origin);
  return window;
}

QWidget* QtApplication::mainWidget() const {
  return main_window_ ? &main_window_->native() : nullptr;
}

}  // namespace qm5

#ifdef __linux__
// Where the display has gone, Qt's plug-in for Wayland and the toolkit that a desktop's theme may
// bring end the process by _exit(), which calls nothing that has been registered before. All
// libraries find this function in place of the C library's.
extern "C" void _exit(int status) {
  qm5::QtApplication::endWithoutDisplay();
  std::_Exit(status);
}
#endif
