#include "app_shell/qt/qt_toolkit.h"

#include <QApplication>
#include <QEventLoop>
#include <QIcon>
#include <QSessionManager>
#include <clocale>
#include <cstdlib>
#include <utility>

#include "app_shell/qt/awake.h"
#include "app_shell/qt/layouts.h"
#include "app_shell/qt/main_queue.h"
#include "app_shell/qt/qt_window.h"
#include "app_shell/qt/resource_files.h"

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
  for (const char* size : {"32x32", "64x64", "128x128"}) {
    icon.addFile(QStringLiteral("%1/../share/icons/hicolor/%2/apps/qm5-updater.png")
                     .arg(QCoreApplication::applicationDirPath(), QLatin1String(size)));
  }
  return icon;
}

}  // namespace

QtToolkit::QtToolkit() : main_queue_(std::make_unique<MainQueue>()) {}

QtToolkit::~QtToolkit() = default;

int QtToolkit::applicationMain(int argc, char** argv, const MainStoryboard& storyboard) {
  QApplication::setHighDpiScaleFactorRoundingPolicy(
      Qt::HighDpiScaleFactorRoundingPolicy::PassThrough);
  // Its display name stays unset: Qt would add it to every window's title.
  QApplication::setApplicationName("QM5 Updater");
  QApplication::setDesktopFileName("qm5-updater");
  QApplication application(argc, argv);
  // Qt leaves by exit() when its display has gone, and jobs may be at work then too.
  std::atexit([] { std::_Exit(EXIT_FAILURE); });
  keepTextsOutOfTheLocale();
  QApplication::setQuitOnLastWindowClosed(false);
  QObject::connect(&application, &QApplication::lastWindowClosed, [this] { lastWindowClosed(); });
  QObject::connect(&application, &QApplication::commitDataRequest,
                   [this](QSessionManager& session) { sessionEnds(session); });

  delegate_ = storyboard.makeDelegate();
  auto layout = makeMainLayout();
  // The icon is not in the window, so the window does not wait for it.
  layout->setPainted([] { QApplication::setWindowIcon(applicationIcon()); });
  main_window_ = std::make_shared<QtWindow>(*main_queue_, std::move(layout), nullptr);
  main_controller_ = storyboard.makeMainController(main_window_);
  main_window_->show();
  delegate_->applicationDidFinishLaunching();
  const int status = QApplication::exec();
  // Here the desktop has asked the program to quit. Jobs may be at work, so nothing that
  // they use is taken apart.
  terminate();
  return status;
}

void QtToolkit::lastWindowClosed() {
  if (delegate_->applicationShouldTerminateAfterLastWindowClosed()) terminate();
}

std::shared_ptr<Window> QtToolkit::mainWindow() {
  return main_window_;
}

// The windows that can be run are modal by themselves, from their showing on.
void QtToolkit::runModalForWindow(const std::shared_ptr<Window>&) {
  QEventLoop run;
  modal_runs_.push_back(&run);
  run.exec();
  modal_runs_.pop_back();
}

void QtToolkit::stopModal() {
  main_queue_->perform([this] {
    if (!modal_runs_.empty()) modal_runs_.back()->exit();
  });
}

void QtToolkit::terminate() {
  if (delegate_) delegate_->applicationWillTerminate();
  // Lines are flushed as they are written. Flushing here could wait for a thread that writes.
  std::_Exit(0);
}

void QtToolkit::requestTermination(std::function<void()> declined) {
  main_queue_->async([this, declined = std::move(declined)] {
    if (delegate_->applicationShouldTerminate(declined)) terminate();
  });
}

void QtToolkit::sessionEnds(QSessionManager& session) {
  if (delegate_->applicationShouldTerminate([] {})) return terminate();
  // A refusal counts only with the leave to ask. That it is granted is of no matter: where it
  // is not, the session ends whatever a program says.
  session.allowsInteraction();
  session.cancel();
}

void QtToolkit::activate(const std::string& activation_token) {
  // Where Qt looks for it, under Wayland; elsewhere the window manager goes by itself.
  if (!activation_token.empty()) qputenv("XDG_ACTIVATION_TOKEN", activation_token.c_str());
  // The token is good for one window: the one that the person can use now.
  if (QWidget* const modal = QApplication::activeModalWidget()) {
    modal->raise();
    return modal->activateWindow();
  }
  main_window_->makeKeyAndOrderFront();
}

std::shared_ptr<void> QtToolkit::beginActivity(std::string_view reason) {
  return keepAwake(reason);
}

void QtToolkit::mainQueueAsync(std::function<void()> step) {
  main_queue_->async(std::move(step));
}

std::shared_ptr<Window> QtToolkit::instantiateWindow(std::string_view storyboard,
                                                     std::string_view identifier) {
  if (storyboard != "Main" || identifier != "ProgressWindow") return nullptr;
  return std::make_shared<QtWindow>(*main_queue_, makeProgressLayout(), main_window_.get());
}

// Titled only is the one style that there is.
std::shared_ptr<Window> QtToolkit::makeWindow(Rect content, WindowStyle) {
  auto window = std::make_shared<QtWindow>(*main_queue_, content.size, main_window_.get());
  window->setFrameOrigin(content.origin);
  return window;
}

std::optional<std::string> QtToolkit::pathForResource(std::string_view name,
                                                      std::string_view extension) {
  return resourcePath(name, extension);
}

FileContents QtToolkit::readFile(const std::string& path) {
  return readRegularFile(path);
}

}  // namespace qm5
