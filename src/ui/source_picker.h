#pragma once

// What to record: a display, a window (with its title and a small picture of it) or an area, and
// the sound, camera and frame rate to go with it. On a Wayland session the desktop's own dialog
// picks the display or window, so "Display…" and "Window…" only say which kind.

#include <QDialog>
#include <memory>
#include <optional>
#include <vector>

#include "project/project_manifest.h"
#include "ui/recording_choice.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QPushButton;

namespace vumo {

class VideoCaptureStream;

class SourcePicker : public QDialog {
  Q_OBJECT

 public:
  // `defaults` are the recording preferences the controls start from.
  explicit SourcePicker(const RecordingOptions& defaults, QWidget* parent = nullptr);
  ~SourcePicker() override;

  // The choice as the controls stand (the selected display or window).
  RecordingChoice choice() const;

 signals:
  // "Record" with a display or window chosen.
  void recordRequested(RecordingChoice choice);
  // "Area…": the area is drawn next; `choice` carries the rest.
  void areaRequested(RecordingChoice choice);

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  void listSources();
  void listDevices(const RecordingOptions& defaults);
  void previewCamera();
  void stopPreview();
  void requestPortal(CaptureSourceKind kind);

  bool wayland_ = false;
  QListWidget* sources_ = nullptr;
  QCheckBox* systemAudio_ = nullptr;
  QCheckBox* microphone_ = nullptr;
  QComboBox* microphones_ = nullptr;
  QCheckBox* camera_ = nullptr;
  QComboBox* cameras_ = nullptr;
  QLabel* cameraPreview_ = nullptr;
  QComboBox* framesPerSecond_ = nullptr;
  QLabel* problem_ = nullptr;
  QPushButton* record_ = nullptr;
  // Stopped (and its thread ended) before the dialog goes, so its frames never outlive the label.
  std::unique_ptr<VideoCaptureStream> preview_;
};

}  // namespace vumo
