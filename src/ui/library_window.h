#pragma once

// The library page of the main window: the projects as a grid of thumbnails with title, duration
// and date; "Record", "Open", "Rename…", "Delete…" and "Settings…"; the damaged packages with
// their reasons; and a `.vumo` folder dropped on it is imported. Every failure goes to the model,
// which shows it once.

#include <QWidget>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ui/library_catalogue.h"
#include "ui/library_thumbnails.h"

class QLabel;
class QListWidget;
class QPushButton;

namespace vumo {

class ApplicationModel;
class MainLoop;
class ProjectStore;

class LibraryWindow : public QWidget {
  Q_OBJECT

 public:
  LibraryWindow(ApplicationModel& model, ProjectStore& store, MainLoop& loop,
                LibraryThumbnails::StillRender stills = LibraryThumbnails::mediaEngineStills(),
                QWidget* parent = nullptr);
  ~LibraryWindow() override;

  LibraryCatalogue& catalogue() { return catalogue_; }
  const std::vector<LibraryEntry>& entries() const { return entries_; }
  const std::vector<DamagedPackage>& damaged() const { return damaged_; }
  QListWidget* projectList() const { return projects_; }
  QListWidget* damagedList() const { return damagedList_; }

  // Without dialogs, for the buttons' dialogs and for tests; failures go to the model.
  void renameProject(const std::string& projectID, const std::string& title);
  void trashProject(const std::string& projectID);
  void importFolders(const std::vector<std::filesystem::path>& folders);
  // Whether interrupted recordings are listed as damaged (from the next refresh): not until
  // start-up recovery has tried them.
  void setUnfinishedListed(bool listed);

 public slots:
  // Lists the store again and asks for the thumbnails it lacks.
  void refresh();

 signals:
  void recordRequested();
  void openRequested(const QString& projectID);
  void settingsRequested();

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  const LibraryEntry* selectedEntry() const;
  void updateButtons();
  void askToRename();
  void askToDelete();
  void openSelected();

  ApplicationModel& model_;
  ProjectStore& store_;
  MainLoop& loop_;
  LibraryCatalogue catalogue_;
  LibraryThumbnails::StillRender stills_;
  std::unique_ptr<LibraryThumbnails> thumbnails_;
  std::vector<LibraryEntry> entries_;
  std::vector<DamagedPackage> damaged_;
  bool unfinishedListed_ = true;
  QListWidget* projects_ = nullptr;
  QLabel* emptyLabel_ = nullptr;
  QLabel* damagedTitle_ = nullptr;
  QListWidget* damagedList_ = nullptr;
  QPushButton* record_ = nullptr;
  QPushButton* open_ = nullptr;
  QPushButton* rename_ = nullptr;
  QPushButton* delete_ = nullptr;
  QPushButton* settings_ = nullptr;
};

}  // namespace vumo
