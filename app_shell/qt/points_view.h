// A content view whose subviews stand at fixed frames in points, with the origin at the
// lower left. All points grow together until every text has room in the user's font.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QWidget>
#include <vector>

#include "app_shell/ports/window.h"

namespace qm5 {

class StatusBox;

class PointsView : public QWidget {
  Q_OBJECT

 public:
  explicit PointsView(Size points, QWidget* parent = nullptr);
  ~PointsView() override;

  Size points() const { return points_; }

  void addImage(const ImageView& image);
  void addLabel(const Label& label);
  QPushButton* addButton(const PushButton& button);

  /// A status box that is to stand above the view, marginsAbove() within its width. The view's
  /// child.
  StatusBox* makeStatusBox();
  /// Around a box above the view.
  QMargins marginsAbove() const;

 private:
  struct Placed {
    QWidget* view;
    Rect frame;  // points
  };

  // Gives `view` its place, and all points the size at which it needs no more than that.
  void place(QWidget* view, const Rect& frame, QSize needed);
  void arrange();

  Size points_;
  double pixels_per_point_ = 1;
  std::vector<Placed> placed_;
};

}  // namespace qm5
