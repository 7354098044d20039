#include "app_shell/qt/qt_window.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <QWindow>
#include <utility>

#include "app_shell/qt/alert.h"
#include "app_shell/qt/qt_text.h"
#include "platform/fatal.h"

namespace qm5 {

namespace {

template <typename Control, typename Widget>
auto controlsOf(const QWidget& window) {
  std::map<std::string, std::shared_ptr<Control>, std::less<>> controls;
  for (Widget* widget : window.findChildren<Widget*>()) {
    controls[widget->objectName().toStdString()] = std::make_shared<Control>(*widget);
  }
  return controls;
}

template <typename Outlets>
auto outletOf(const Outlets& outlets, std::string_view name) {
  const auto found = outlets.find(name);
  return found == outlets.end() ? nullptr : found->second;
}

// Qt counts from the top of the primary screen downwards, the port from its bottom upwards.
// The same turns both ways: the y of an upper edge and of the height below it.
double turnedOver(double y, double height) {
  const QRect screen = QGuiApplication::primaryScreen()->geometry();
  return screen.y() + screen.height() - y - height;
}

}  // namespace

QtWindow::QtWindow(MainQueue& main_queue, std::unique_ptr<NativeWindow> native,
                   const QtWindow* owner)
    : main_queue_(main_queue),
      native_(std::move(native)),
      owner_(owner),
      buttons_(controlsOf<QtButton, QPushButton>(*native_)),
      text_fields_(controlsOf<QtTextField, QLabel>(*native_)),
      progress_indicators_(controlsOf<QtProgressIndicator, QProgressBar>(*native_)),
      status_lines_(controlsOf<QtStatusLine, StatusBox>(*native_)) {}

QtWindow::QtWindow(MainQueue& main_queue, Size content, const QtWindow* owner)
    : QtWindow(main_queue, std::make_unique<NativeWindow>(NativeWindow::Closing::byProgramOnly),
               owner) {
  points_view_ = new PointsView(content);
  auto* layout = new QVBoxLayout(native_.get());
  layout->setContentsMargins(QMargins());
  layout->setSizeConstraint(QLayout::SetFixedSize);
  layout->addWidget(points_view_);
}

// Measuring a window's texts takes a while: the start must not wait for that of windows to come.
const NativeWindow& QtWindow::measured() const {
  if (!native_->isVisible()) native_->adjustSize();
  return *native_;
}

// The window manager tells the margins only some time after the showing. Until then they are
// taken to be those of the owner, which has been on the screen for long.
QMargins QtWindow::frameMargins() const {
  const QWindow* handle = native_->windowHandle();
  const QMargins known = handle ? handle->frameMargins() : QMargins();
  return known.isNull() && owner_ ? owner_->frameMargins() : known;
}

Rect QtWindow::frame() const {
  const QRect area = measured().geometry().marginsAdded(frameMargins());
  return {{static_cast<double>(area.x()), turnedOver(area.y(), area.height())},
          {static_cast<double>(area.width()), static_cast<double>(area.height())}};
}

void QtWindow::setFrameOrigin(Point origin) {
  const QMargins margins = frameMargins();
  const double top = turnedOver(origin.y, frame().size.height);
  const QPointF content(origin.x + margins.left(), top + margins.top());
  // The place of the content, not of the frame, as Qt may not know the frame yet.
  native_->setGeometry(QRect(content.toPoint(), native_->size()));
}

void QtWindow::setTitle(std::string_view title) {
  native_->setWindowTitle(qtText(title));
}

std::optional<Size> QtWindow::contentViewSize() const {
  if (points_view_) return points_view_->points();
  const QSize size = measured().size();
  return Size{static_cast<double>(size.width()), static_cast<double>(size.height())};
}

std::shared_ptr<Button> QtWindow::button(std::string_view outlet) {
  return outletOf(buttons_, outlet);
}

std::shared_ptr<TextField> QtWindow::textField(std::string_view outlet) {
  return outletOf(text_fields_, outlet);
}

std::shared_ptr<ProgressIndicator> QtWindow::progressIndicator(std::string_view outlet) {
  return outletOf(progress_indicators_, outlet);
}

std::shared_ptr<StatusLine> QtWindow::statusLine(std::string_view outlet) {
  return outletOf(status_lines_, outlet);
}

void QtWindow::setAction(std::string_view button, Action action) {
  if (const auto found = outletOf(buttons_, button)) found->setAction(std::move(action));
}

void QtWindow::setViewWillDisappear(std::function<void()> callback) {
  native_->setWillDisappear(std::move(callback));
}

void QtWindow::setTimer(double interval, std::function<void()> tick) {
  native_->setTimer(interval, std::move(tick));
}

PointsView& QtWindow::pointsView() {
  return required(points_view_, "A subview for a window that is laid out already.");
}

void QtWindow::keepCentred(const std::function<void()>& change) {
  const Rect before = frame();
  change();
  native_->adjustSize();
  const Size size = frame().size;
  if (size.width == before.size.width && size.height == before.size.height) return;
  setFrameOrigin({before.origin.x + (before.size.width - size.width) / 2,
                  before.origin.y + (before.size.height - size.height) / 2});
}

void QtWindow::addSubview(const ImageView& image) {
  keepCentred([&] { pointsView().addImage(image); });
}

void QtWindow::addSubview(const Label& label) {
  keepCentred([&] { pointsView().addLabel(label); });
}

void QtWindow::addSubview(const PushButton& button) {
  keepCentred([&] {
    auto added = std::make_unique<QtButton>(*pointsView().addButton(button));
    added->setAction(button.action);
    added_buttons_.push_back(std::move(added));
  });
}

void QtWindow::show() {
  // The font may have changed since. A window that only then grows would lose the place that
  // the window manager picks for it.
  measured();
  if (owner_) {
    native_->winId();  // makes the native window, which is what can belong to another
    native_->windowHandle()->setTransientParent(owner_->native_->windowHandle());
  }
  native_->show();
}

void QtWindow::makeKeyAndOrderFront() {
  show();
  native_->setWindowState(native_->windowState() & ~Qt::WindowMinimized);
  native_->raise();
  native_->activateWindow();
}

void QtWindow::close() {
  main_queue_.perform([window = weak_from_this()] {
    if (const auto kept = window.lock()) kept->native_->hide();
  });
}

// A window lasts as long as somebody holds it: there is nothing to release at its closing.
void QtWindow::setReleasedWhenClosed(bool) {}

void QtWindow::beginSheet(const Alert& alert, AlertCompletion completion) {
  main_queue_.perform([window = weak_from_this(), alert, completion = std::move(completion)] {
    if (const auto kept = window.lock()) openAlert(*kept->native_, alert, completion);
  });
}

}  // namespace qm5
