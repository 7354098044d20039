// What controllers of views and windows have in common.
#pragma once

#include <any>
#include <memory>

#include "app_shell/ports/window.h"

namespace qm5 {

/// Controls one view. All on the main thread.
class BaseViewController {
 public:
  virtual ~BaseViewController() = default;

  /// Called once the view is loaded.
  virtual void viewDidLoad() {}
  /// Called just before the view leaves the screen.
  virtual void viewWillDisappear() {}

  /// The window that the view is in; none once that has gone.
  std::weak_ptr<Window> viewWindow;
  /// Whatever the view stands for. The controllers of this application give it no meaning.
  std::any representedObject;
};

/// Controls one window and owns the controller of its content. All on the main thread,
/// close() on any.
class BaseWindowController {
 public:
  explicit BaseWindowController(std::shared_ptr<Window> loaded) : window(std::move(loaded)) {}
  virtual ~BaseWindowController() = default;

  void showWindow() { window->show(); }
  void close() { window->close(); }

  const std::shared_ptr<Window> window;
  std::shared_ptr<BaseViewController> contentViewController;
};

}  // namespace qm5
