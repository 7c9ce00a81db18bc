#include "ui/application.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QIcon>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <QTimer>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <thread>

#include "cli/media_module_loader.h"
#include "cli/recording_recovery.h"
#include "project/project_store.h"
#include "ui/application_model.h"
#include "ui/main_window.h"
#include "ui/preferences_store.h"
#include "ui/qt_main_loop.h"
#include "ui/user_messages.h"

namespace vumo {

namespace {

constexpr int answerTimeoutMilliseconds = 3000;

// The write end of the termination pipe; -1 when no TerminationSignals object exists.
std::atomic<int> terminationPipe = -1;

void onTerminationSignal(int signalNumber) {
  const int saved = errno;
  const int fd = terminationPipe.load();
  if (fd >= 0) {
    const unsigned char number = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(fd, &number, 1);
  }
  errno = saved;
}

// An exclusive flock on a file, released with the object.
class LockFile {
 public:
  explicit LockFile(const QString& path) {
    fd_ = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ >= 0)
      while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
      }
  }
  ~LockFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace

// ---- SingleInstance -----------------------------------------------------------------------------

QString SingleInstance::defaultServerPath() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const QString folder = (runtime != nullptr && runtime[0] == '/') ? QString::fromLocal8Bit(runtime) : QDir::tempPath();
  return QDir(folder).filePath(QStringLiteral("vumo-%1.socket").arg(::getuid()));
}

SingleInstance::SingleInstance(QString serverPath, QObject* parent)
    : QObject(parent), serverPath_(std::move(serverPath)) {}

SingleInstance::~SingleInstance() {
  if (server_ != nullptr) server_->close();
}

bool SingleInstance::isListening() const { return server_ != nullptr && server_->isListening(); }

bool SingleInstance::askRunningInstance() {
  QLocalSocket socket;
  socket.connectToServer(serverPath_);
  if (!socket.waitForConnected(answerTimeoutMilliseconds)) return false;
  socket.write(raiseRequest);
  socket.flush();
  // An instance that accepted the connection runs, even if it is too busy to answer in time:
  // starting a second one beside it is what must never happen.
  socket.waitForBytesWritten(answerTimeoutMilliseconds);
  while (!socket.canReadLine() && socket.waitForReadyRead(answerTimeoutMilliseconds)) {
  }
  return true;
}

bool SingleInstance::claim() {
  LockFile lock(serverPath_ + QStringLiteral(".lock"));
  if (askRunningInstance()) return false;
  // Nobody answers: whatever lies at the path was left by a process that is gone.
  QLocalServer::removeServer(serverPath_);
  server_ = new QLocalServer(this);
  server_->setSocketOptions(QLocalServer::UserAccessOption);
  if (!server_->listen(serverPath_)) {
    // Without the socket this instance still works; only the raising of its window is lost.
    delete server_;
    server_ = nullptr;
    return true;
  }
  connect(server_, &QLocalServer::newConnection, this, &SingleInstance::answer);
  return true;
}

void SingleInstance::answer() {
  while (QLocalSocket* socket = server_->nextPendingConnection()) {
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
      // One short line; anything longer is not ours.
      if (socket->bytesAvailable() > 64) {
        socket->abort();
        return;
      }
      if (!socket->canReadLine()) return;
      const QByteArray line = socket->readLine();
      if (line == raiseRequest) {
        socket->write(raiseAnswer);
        socket->flush();
        emit raiseRequested();
      }
      socket->disconnectFromServer();
    });
    // A client that never writes is dropped rather than kept.
    QTimer::singleShot(answerTimeoutMilliseconds, socket, [socket] { socket->abort(); });
  }
}

// ---- TerminationSignals ------------------------------------------------------------------------

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent) {
  std::array<int, 2> fds{-1, -1};
  if (::pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
  notifier_ = new QSocketNotifier(fds[0], QSocketNotifier::Read, this);
  connect(notifier_, &QSocketNotifier::activated, this, &TerminationSignals::drain);
  terminationPipe = fds[1];
  struct sigaction action {};
  action.sa_handler = &onTerminationSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

TerminationSignals::~TerminationSignals() {
  if (notifier_ == nullptr) return;
  std::signal(SIGTERM, SIG_DFL);
  std::signal(SIGINT, SIG_DFL);
  const int writeEnd = terminationPipe.exchange(-1);
  ::close(writeEnd);
  ::close(static_cast<int>(notifier_->socket()));
}

void TerminationSignals::drain() {
  unsigned char number = 0;
  while (::read(static_cast<int>(notifier_->socket()), &number, 1) == 1) emit terminationRequested(number);
}

// ---- Recovery ----------------------------------------------------------------------------------

std::vector<std::string> recoverUnfinishedRecordings(ProjectStore& store, const MediaProbing& probe) {
  const InterruptedRecordingRecovery result = recoverInterruptedRecordings(store, probe);
  if (result.searchFailure) return {"Unfinished recordings could not be looked for: " + *result.searchFailure};
  std::vector<std::string> sentences;
  for (const InterruptedRecordingOutcome& outcome : result.outcomes) {
    const std::string& title = outcome.candidate.manifest.source.title;
    sentences.push_back(outcome.recovered ? fmt::format("The interrupted recording “{}” was recovered.", title)
                                          : fmt::format("The interrupted recording “{}” could not be recovered: {}",
                                                        title, outcome.failure));
  }
  return sentences;
}

// ---- Application -------------------------------------------------------------------------------

int Application::run(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Vumo"));
  QApplication::setApplicationDisplayName(QStringLiteral("Vumo"));
  QGuiApplication::setDesktopFileName(QStringLiteral("com.tarvex.vumo"));
  QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("com.tarvex.vumo")));

  SingleInstance instance;
  if (!instance.claim()) return 0;

  TerminationSignals termination;
  QtMainLoop loop;
  std::unique_ptr<ProjectStore> store;
  ApplicationModel model;
  PreferencesStore preferences;
  try {
    store = std::make_unique<ProjectStore>();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vumo: %s\n", userMessageFor(error).c_str());
    return 1;
  }

  MainWindow window(model, *store, preferences, loop);
  QObject::connect(&instance, &SingleInstance::raiseRequested, &window, &MainWindow::raiseAndActivate);
  bool quitting = false;
  auto quitCleanly = [&] {
    if (quitting) return;
    quitting = true;
    window.prepareToQuit([] { QCoreApplication::quit(); });
  };
  QObject::connect(&termination, &TerminationSignals::terminationRequested, &window, [&](int) { quitCleanly(); });
  QObject::connect(&window, &MainWindow::quitRequested, &window, [&] { quitCleanly(); });
  window.show();

  // Recovery reads whole chunk folders: on a thread of its own with a store of its own, so the
  // window is up at once. Its sentences reach the person like any other message.
  const std::filesystem::path projects = store->projectsDirectoryPath();
  std::jthread recovery([&loop, &window, projects] {
    std::vector<std::string> sentences;
    try {
      const MediaProbing probe = MediaModuleLoader::load().probeRecordingMedia;
      ProjectStore own(projects);
      sentences = recoverUnfinishedRecordings(own, probe);
    } catch (const std::exception& error) {
      sentences.push_back(fmt::format("Unfinished recordings could not be looked for: {}", userMessageFor(error)));
    }
    loop.post([&window, sentences] { window.recoveryFinished(sentences); });
  });

  const int status = application.exec();
  return status;
}

}  // namespace vumo
