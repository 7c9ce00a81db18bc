#pragma once

// The desktop application's process: Qt's application object, one running instance per user,
// quitting cleanly on SIGTERM and SIGINT, and the start-up recovery of recordings a crash left
// unfinished. The windows are built by MainWindow; this only starts and stops them.

#include <QObject>
#include <QString>
#include <functional>
#include <string>
#include <vector>

#include "project/project_recovery.h"

class QLocalServer;
class QSocketNotifier;

namespace vumo {

class ProjectStore;

// One application per user and session: the first `vumo` listens on a local socket named from the
// user id in $XDG_RUNTIME_DIR; a later one connects, asks it to raise its window, and goes.
class SingleInstance : public QObject {
  Q_OBJECT

 public:
  // What a later instance writes, and the first answers.
  static constexpr const char* raiseRequest = "raise\n";
  static constexpr const char* raiseAnswer = "raised\n";

  // $XDG_RUNTIME_DIR/vumo-<uid>.socket; the temporary folder where there is no runtime folder.
  static QString defaultServerPath();

  explicit SingleInstance(QString serverPath = defaultServerPath(), QObject* parent = nullptr);
  ~SingleInstance() override;

  // True when this is the first instance, which now listens. False when a running one answered
  // the request to raise its window; this one then starts nothing. A socket that no process
  // answers on (left by a crash) is replaced. Decided under a lock file beside the socket, so two
  // instances started at once never both become the first.
  bool claim();

  bool isListening() const;

 signals:
  // A later instance asked for the window.
  void raiseRequested();

 private:
  bool askRunningInstance();
  void answer();

  QString serverPath_;
  QLocalServer* server_ = nullptr;
};

// SIGTERM and SIGINT as a Qt signal: the handler only writes to a pipe that the event loop reads,
// so nothing runs inside the signal handler but write(2).
class TerminationSignals : public QObject {
  Q_OBJECT

 public:
  explicit TerminationSignals(QObject* parent = nullptr);
  ~TerminationSignals() override;

 signals:
  // Once per signal received, on the main thread.
  void terminationRequested(int signalNumber);

 private:
  void drain();

  QSocketNotifier* notifier_ = nullptr;
};

// Recordings that a crash left unfinished are completed as `vumo record` does before it records:
// through the store's recovery, which leaves alone every package a live recording still locks.
// Returns a sentence for each package that was recovered or could not be; none when there was
// nothing to do.
std::vector<std::string> recoverUnfinishedRecordings(ProjectStore& store, const MediaProbing& probe);

struct Application {
  // The application module's entry point: runs until the last window closes or a termination
  // signal has been handled, and returns the exit status.
  static int run(int argc, char** argv);
};

}  // namespace vumo
