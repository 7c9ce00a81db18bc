#pragma once

// The picture of the editor: paints the player's current frame scaled to fit, tells the player
// its size in device pixels, and shows the player's error text in place of the picture when the
// film cannot be shown.

#include <QWidget>

namespace vumo {

class EditorPlayer;

class PlayerView final : public QWidget {
  Q_OBJECT

 public:
  explicit PlayerView(EditorPlayer& player, QWidget* parent = nullptr);

  // The player has a new frame or a new error: repaint.
  void frameChanged();
  // The text shown in place of the picture, empty while the picture shows.
  QString shownErrorText() const;

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  void tellViewSize();

  EditorPlayer& player_;
};

}  // namespace vumo
