#include "ui/library_window.h"

#include <QDateTime>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QHBoxLayout>
#include <QIcon>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QMessageBox>
#include <QMimeData>
#include <QPixmap>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include "project/project_store.h"
#include "ui/application_model.h"

namespace vumo {

namespace fs = std::filesystem;

namespace {

constexpr int projectIDRole = Qt::UserRole + 1;
constexpr int packagePathRole = Qt::UserRole + 2;

QString durationText(ProjectTime duration) {
  const qint64 seconds = std::max<qint64>(duration.nanoseconds, 0) / 1'000'000'000;
  if (seconds >= 3600)
    return QStringLiteral("%1:%2:%3")
        .arg(seconds / 3600)
        .arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'))
        .arg(seconds % 60, 2, 10, QLatin1Char('0'));
  return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

QString dateText(const Timestamp& timestamp) {
  const auto seconds = timestamp.value.time_since_epoch().count();
  const QDateTime local = QDateTime::fromSecsSinceEpoch(static_cast<qint64>(seconds)).toLocalTime();
  return QLocale().toString(local, QLocale::ShortFormat);
}

QString titleText(const LibraryEntry& entry) {
  return entry.title.empty() ? QStringLiteral("Untitled Recording") : QString::fromStdString(entry.title);
}

bool isPackageFolder(const QUrl& url) {
  if (!url.isLocalFile()) return false;
  QString path = url.toLocalFile();
  while (path.endsWith(QLatin1Char('/'))) path.chop(1);
  return path.endsWith(QStringLiteral(".vumo"));
}

}  // namespace

LibraryWindow::LibraryWindow(ApplicationModel& model, ProjectStore& store, MainLoop& loop,
                             LibraryThumbnails::StillRender stills, QWidget* parent)
    : QWidget(parent), model_(model), store_(store), loop_(loop), catalogue_(store), stills_(std::move(stills)) {
  setAccessibleName(QStringLiteral("Library"));
  setAcceptDrops(true);

  auto* layout = new QVBoxLayout(this);
  auto* buttons = new QHBoxLayout;
  record_ = new QPushButton(QStringLiteral("Record"), this);
  open_ = new QPushButton(QStringLiteral("Open"), this);
  rename_ = new QPushButton(QStringLiteral("Rename…"), this);
  delete_ = new QPushButton(QStringLiteral("Delete…"), this);
  settings_ = new QPushButton(QStringLiteral("Settings…"), this);
  for (QPushButton* button : {record_, open_, rename_, delete_}) buttons->addWidget(button);
  buttons->addStretch(1);
  buttons->addWidget(settings_);
  layout->addLayout(buttons);

  projects_ = new QListWidget(this);
  projects_->setAccessibleName(QStringLiteral("Projects"));
  projects_->setViewMode(QListView::IconMode);
  projects_->setIconSize(QSize(LibraryThumbnails::width / 2, LibraryThumbnails::width * 9 / 32));
  projects_->setResizeMode(QListView::Adjust);
  projects_->setMovement(QListView::Static);
  projects_->setWordWrap(true);
  projects_->setSpacing(8);
  projects_->setSelectionMode(QAbstractItemView::SingleSelection);
  projects_->setAcceptDrops(false);
  layout->addWidget(projects_, 1);

  emptyLabel_ = new QLabel(
      QStringLiteral("No recordings yet. Press Record to make one, or drop a .vumo project here to import it."), this);
  emptyLabel_->setWordWrap(true);
  layout->addWidget(emptyLabel_);

  damagedTitle_ = new QLabel(QStringLiteral("Damaged projects"), this);
  damagedList_ = new QListWidget(this);
  damagedList_->setAccessibleName(QStringLiteral("Damaged projects"));
  damagedList_->setMaximumHeight(120);
  damagedList_->setWordWrap(true);
  damagedList_->setAcceptDrops(false);
  layout->addWidget(damagedTitle_);
  layout->addWidget(damagedList_);

  connect(record_, &QPushButton::clicked, this, &LibraryWindow::recordRequested);
  connect(open_, &QPushButton::clicked, this, &LibraryWindow::openSelected);
  connect(rename_, &QPushButton::clicked, this, &LibraryWindow::askToRename);
  connect(delete_, &QPushButton::clicked, this, &LibraryWindow::askToDelete);
  connect(settings_, &QPushButton::clicked, this, &LibraryWindow::settingsRequested);
  connect(projects_, &QListWidget::itemSelectionChanged, this, &LibraryWindow::updateButtons);
  connect(projects_, &QListWidget::itemActivated, this, [this] { openSelected(); });
  refresh();
}

LibraryWindow::~LibraryWindow() = default;

void LibraryWindow::refresh() {
  const QString selected =
      projects_->currentItem() != nullptr ? projects_->currentItem()->data(projectIDRole).toString() : QString();
  try {
    entries_ = catalogue_.recentProjects();
    damaged_ = catalogue_.damagedPackages(unfinishedListed_);
  } catch (const std::exception& error) {
    entries_.clear();
    damaged_.clear();
    model_.fail(error);
  }
  projects_->clear();
  for (const LibraryEntry& entry : entries_) {
    const QString title = titleText(entry);
    auto* item = new QListWidgetItem(
        QStringLiteral("%1\n%2 · %3").arg(title, durationText(entry.duration), dateText(entry.updatedAt)), projects_);
    item->setData(projectIDRole, QString::fromStdString(entry.projectID));
    item->setData(packagePathRole, QString::fromStdString(entry.recent.packagePath.string()));
    item->setData(Qt::AccessibleTextRole, title);
    item->setToolTip(title);
    if (QString::fromStdString(entry.projectID) == selected) projects_->setCurrentItem(item);
  }
  damagedList_->clear();
  for (const DamagedPackage& package : damaged_) {
    auto* item = new QListWidgetItem(
        QStringLiteral("%1 — %2").arg(QString::fromStdString(package.packagePath.filename().string()),
                                      QString::fromStdString(package.error)),
        damagedList_);
    item->setToolTip(QString::fromStdString(package.packagePath.string()));
  }
  emptyLabel_->setVisible(entries_.empty());
  damagedTitle_->setVisible(!damaged_.empty());
  damagedList_->setVisible(!damaged_.empty());
  updateButtons();

  if (entries_.empty()) return;
  if (!thumbnails_) thumbnails_ = std::make_unique<LibraryThumbnails>(loop_, store_.projectsDirectoryPath(), stills_);
  for (const LibraryEntry& entry : entries_) {
    thumbnails_->request(entry.recent.packagePath, [this](const LibraryThumbnails::Result& result) {
      if (!result.image) return;  // the item keeps its title; a missing picture is no failure to report
      const QString path = QString::fromStdString(result.packagePath.string());
      for (int row = 0; row < projects_->count(); ++row) {
        QListWidgetItem* item = projects_->item(row);
        if (item->data(packagePathRole).toString() != path) continue;
        QPixmap picture;
        if (picture.load(QString::fromStdString(result.image->string()), "PNG")) item->setIcon(QIcon(picture));
      }
    });
  }
}

const LibraryEntry* LibraryWindow::selectedEntry() const {
  const QListWidgetItem* item = projects_->currentItem();
  if (item == nullptr || !item->isSelected()) return nullptr;
  const std::string id = item->data(projectIDRole).toString().toStdString();
  for (const LibraryEntry& entry : entries_)
    if (entry.projectID == id) return &entry;
  return nullptr;
}

void LibraryWindow::updateButtons() {
  const bool chosen = selectedEntry() != nullptr;
  open_->setEnabled(chosen);
  rename_->setEnabled(chosen);
  delete_->setEnabled(chosen);
}

void LibraryWindow::openSelected() {
  if (const LibraryEntry* entry = selectedEntry()) emit openRequested(QString::fromStdString(entry->projectID));
}

void LibraryWindow::renameProject(const std::string& projectID, const std::string& title) {
  for (const LibraryEntry& entry : entries_) {
    if (entry.projectID != projectID) continue;
    try {
      catalogue_.rename(entry, title);
    } catch (const std::exception& error) {
      model_.fail(error);
    }
    break;
  }
  refresh();
}

void LibraryWindow::trashProject(const std::string& projectID) {
  for (const LibraryEntry& entry : entries_) {
    if (entry.projectID != projectID) continue;
    try {
      catalogue_.moveToTrash(entry);
    } catch (const std::exception& error) {
      model_.fail(error);
    }
    break;
  }
  refresh();
}

void LibraryWindow::importFolders(const std::vector<fs::path>& folders) {
  for (const fs::path& folder : folders) {
    try {
      catalogue_.importPackage(folder);
    } catch (const std::exception& error) {
      model_.fail(error);
    }
  }
  refresh();
}

void LibraryWindow::setUnfinishedListed(bool listed) { unfinishedListed_ = listed; }

void LibraryWindow::askToRename() {
  const LibraryEntry* entry = selectedEntry();
  if (entry == nullptr) return;
  const std::string id = entry->projectID;
  bool accepted = false;
  const QString title = QInputDialog::getText(this, QStringLiteral("Rename Project"), QStringLiteral("Title:"),
                                              QLineEdit::Normal, titleText(*entry), &accepted);
  if (accepted) renameProject(id, title.toStdString());
}

void LibraryWindow::askToDelete() {
  const LibraryEntry* entry = selectedEntry();
  if (entry == nullptr) return;
  const std::string id = entry->projectID;
  QMessageBox question(QMessageBox::Question, QStringLiteral("Delete Project"),
                       QStringLiteral("Move “%1” to the trash?").arg(titleText(*entry)), QMessageBox::NoButton, this);
  question.setInformativeText(QStringLiteral("You can restore it from the trash of your file manager."));
  QPushButton* confirm = question.addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
  question.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
  question.exec();
  if (question.clickedButton() == confirm) trashProject(id);
}

void LibraryWindow::dragEnterEvent(QDragEnterEvent* event) {
  const QMimeData* data = event->mimeData();
  if (data == nullptr || !data->hasUrls()) return;
  for (const QUrl& url : data->urls())
    if (isPackageFolder(url)) {
      event->acceptProposedAction();
      return;
    }
}

void LibraryWindow::dropEvent(QDropEvent* event) {
  const QMimeData* data = event->mimeData();
  if (data == nullptr || !data->hasUrls()) return;
  std::vector<fs::path> folders;
  for (const QUrl& url : data->urls())
    if (isPackageFolder(url)) folders.emplace_back(url.toLocalFile().toStdString());
  if (folders.empty()) return;
  event->acceptProposedAction();
  importFolders(folders);
}

}  // namespace vumo
