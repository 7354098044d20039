#include "app_shell/qt/qt_window.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <utility>

#include "app_shell/qt/alert_dialog.h"
#include "app_shell/qt/qt_text.h"
#include "app_shell/qt/report_dialog.h"
#include "platform/fatal.h"

namespace qm5 {

namespace {

template <typename Control, typename Widget, typename... Context>
auto controlsOf(const QWidget& window, Context&... context) {
  std::map<std::string, std::shared_ptr<Control>, std::less<>> controls;
  for (Widget* widget : window.findChildren<Widget*>()) {
    // Of two widgets of one name the first counts. A control that is replaced would leave its
    // connections to the widget behind.
    auto& control = controls[widget->objectName().toStdString()];
    if (!control) control = std::make_shared<Control>(*widget, context...);
  }
  return controls;
}

template <typename Outlets>
auto outletOf(const Outlets& outlets, std::string_view name) {
  const auto found = outlets.find(name);
  return found == outlets.end() ? nullptr : found->second;
}

// Qt counts from the top of the primary screen downwards, the port from its bottom upwards. Turns
// the y of an upper edge into that of the lower edge, `height` below it, and the other way round.
double flipY(double y, double height) {
  const QRect screen = QGuiApplication::primaryScreen()->geometry();
  return screen.y() + screen.height() - y - height;
}

}  // namespace

QtWindow::QtWindow(MainQueue& main_queue, std::unique_ptr<NativeWindow> native)
    : main_queue_(main_queue),
      native_(std::move(native)),
      buttons_(controlsOf<QtButton, QPushButton>(*native_)),
      text_fields_(controlsOf<QtTextField, QLabel>(*native_, main_queue)),
      progress_indicators_(controlsOf<QtProgressIndicator, QProgressBar>(*native_, main_queue)),
      status_indicators_(controlsOf<QtStatusIndicator, StatusBox>(*native_)) {}

QtWindow::QtWindow(MainQueue& main_queue, Size content, QWidget* parent)
    : QtWindow(main_queue,
               std::make_unique<NativeWindow>(NativeWindow::Closing::byProgramOnly, parent)) {
  native_->setComesUnasked();
  points_view_ = new PointsView(content);
  auto* layout = new QVBoxLayout(native_.get());
  layout->setContentsMargins(QMargins());
  layout->setSpacing(0);
  layout->setSizeConstraint(QLayout::SetNoConstraint);
  layout->addWidget(points_view_);
}

// Computed only when asked for. It measures all texts of the window, which takes a while, and the
// start of the program must not wait for the windows that come later.
QSize QtWindow::contentSize() const {
  return native_->isVisible() ? native_->size() : native_->sizeHint();
}

// Before a window is on the screen, Qt does not know its frame and takes it for nothing.
Rect QtWindow::frame() {
  const QRect area = native_->frameGeometry();
  const QSizeF size = area.size() - native_->size() + contentSize();
  return {{static_cast<double>(area.x()), flipY(area.y(), size.height())},
          {size.width(), size.height()}};
}

void QtWindow::setFrameOrigin(Point origin) {
  native_->move(QPointF(origin.x, flipY(origin.y, frame().size.height)).toPoint());
}

void QtWindow::setTitle(std::string_view title) {
  native_->setWindowTitle(qtText(title));
}

std::optional<Size> QtWindow::contentViewSize() {
  if (points_view_) return points_view_->points();
  const QSize size = contentSize();
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

std::shared_ptr<StatusIndicator> QtWindow::statusIndicator(std::string_view outlet) {
  return outletOf(status_indicators_, outlet);
}

void QtWindow::setAction(std::string_view button, Action action) {
  if (const auto found = outletOf(buttons_, button)) found->setAction(std::move(action));
}

void QtWindow::setCloseRequested(std::function<void()> callback) {
  native_->setCloseRequested(std::move(callback));
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

std::shared_ptr<StatusIndicator> QtWindow::growStatusIndicator() {
  const QRect before = native_->frameGeometry();
  StatusBox* box = pointsView().makeStatusBox();
  auto* above = new QVBoxLayout;
  above->setContentsMargins(pointsView().marginsAbove());
  above->addWidget(box);
  const int growth = above->contentsMargins().top() + box->height();
  if (before.top() - growth < native_->screen()->availableGeometry().top() ||
      native_->height() + growth > roomOnScreen(*native_).height()) {
    delete above;
    delete box;
    return nullptr;
  }
  qobject_cast<QVBoxLayout*>(native_->layout())->insertLayout(0, above);
  native_->fit();
  native_->move(before.topLeft() - QPoint(0, growth));
  grown_ = std::make_shared<QtStatusIndicator>(*box);
  return grown_;
}

void QtWindow::show() {
  native_->show();
}

void QtWindow::makeKeyAndOrderFront() {
  show();
  native_->bringToFront();
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
    const auto kept = window.lock();
    if (!kept) return completion(kModalResponseAbort);
    AlertDialog::show(alert, completion, kept->native_.get());
  });
}

void QtWindow::showText(const TextReport& report) {
  (new ReportDialog(report, native_.get()))->open();
}

}  // namespace qm5
