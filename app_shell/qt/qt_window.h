// A window of the port on a window of Qt.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "app_shell/ports/window.h"
#include "app_shell/qt/native_window.h"
#include "app_shell/qt/points_view.h"
#include "app_shell/qt/qt_controls.h"
#include "main_queue/main_queue.h"

namespace qm5 {

class QtWindow : public Window, public std::enable_shared_from_this<QtWindow> {
 public:
  /// A window with the controls of its layout, by their object names. The queue outlives it.
  QtWindow(MainQueue& main_queue, std::unique_ptr<NativeWindow> native);
  /// An empty window with a content view of that size in points, which comes up by itself.
  /// `parent` is the window that it stands on, or nullptr; it outlives this one.
  QtWindow(MainQueue& main_queue, Size content, QWidget* parent);

  /// The window as the toolkit has it.
  NativeWindow& native() { return *native_; }

  Rect frame() override;
  void setFrameOrigin(Point origin) override;
  void setTitle(std::string_view title) override;
  std::optional<Size> contentViewSize() override;

  std::shared_ptr<Button> button(std::string_view outlet) override;
  std::shared_ptr<TextField> textField(std::string_view outlet) override;
  std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) override;
  std::shared_ptr<StatusIndicator> statusIndicator(std::string_view outlet) override;
  void setAction(std::string_view button, Action action) override;
  void setCloseRequested(std::function<void()> callback) override;
  void setViewWillDisappear(std::function<void()> callback) override;
  void setTimer(double interval, std::function<void()> tick) override;

  void addSubview(const ImageView& image) override;
  void addSubview(const Label& label) override;
  void addSubview(const PushButton& button) override;

  std::shared_ptr<StatusIndicator> growStatusIndicator() override;

  void show() override;
  void makeKeyAndOrderFront() override;
  void close() override;
  void setReleasedWhenClosed(bool released) override;
  void beginSheet(const Alert& alert, AlertCompletion completion) override;
  void showText(const TextReport& report) override;

 private:
  template <typename Control>
  using Outlets = std::map<std::string, std::shared_ptr<Control>, std::less<>>;

  // The size of its content: the one that it will have, before it is shown.
  QSize contentSize() const;
  PointsView& pointsView();
  // Lets `change` run and keeps the centre of the window where it was.
  void keepCentred(const std::function<void()>& change);

  MainQueue& main_queue_;
  std::unique_ptr<NativeWindow> native_;
  PointsView* points_view_ = nullptr;  // inside native_
  std::shared_ptr<QtStatusIndicator> grown_;
  Outlets<QtButton> buttons_;
  std::vector<std::unique_ptr<QtButton>> added_buttons_;
  Outlets<QtTextField> text_fields_;
  Outlets<QtProgressIndicator> progress_indicators_;
  Outlets<QtStatusIndicator> status_indicators_;
};

}  // namespace qm5
