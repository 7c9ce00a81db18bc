#include "capture/screen_cast_portal.h"

#include <fmt/core.h>
#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "capture/capture_error.h"
#include "capture/glib_invoke.h"
#include "shared/cancellation.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

constexpr const char* portalBusName = "org.freedesktop.portal.Desktop";
constexpr const char* portalObjectPath = "/org/freedesktop/portal/desktop";
constexpr const char* screenCastInterface = "org.freedesktop.portal.ScreenCast";
constexpr const char* requestInterface = "org.freedesktop.portal.Request";
constexpr const char* sessionInterface = "org.freedesktop.portal.Session";

constexpr std::uint32_t firstVersionWithCursorModes = 2;
constexpr std::uint32_t firstVersionWithRestoreTokens = 4;
constexpr std::uint32_t persistUntilRevoked = 2;
constexpr std::uint32_t responseCancelled = 1;

// Tokens are opaque to us; the portals hand out UUIDs. A file larger than this was not written by us.
constexpr std::size_t maximumTokenFileBytes = 4096;
constexpr std::size_t maximumTokenLength = 1024;

// Closing a session is a courtesy (the portal also closes it when our connection goes), so it is
// not worth a long wait.
constexpr int sessionCloseTimeoutMilliseconds = 2000;

struct VariantUnref {
  void operator()(GVariant* v) const { g_variant_unref(v); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

struct ErrorFree {
  void operator()(GError* e) const { g_error_free(e); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

struct ObjectUnref {
  void operator()(gpointer o) const { g_object_unref(o); }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, ObjectUnref>;
using FDListPtr = std::unique_ptr<GUnixFDList, ObjectUnref>;

// A GCancellable that a stop request cancels, so a blocking GIO call ends with the request.
class StopCancellable {
 public:
  explicit StopCancellable(const std::stop_token& stop)
      : cancellable_(g_cancellable_new()), callback_(stop, [c = cancellable_.get()] { g_cancellable_cancel(c); }) {}
  GCancellable* get() const { return cancellable_.get(); }

 private:
  std::unique_ptr<GCancellable, ObjectUnref> cancellable_;
  std::stop_callback<std::function<void()>> callback_;
};

std::string objectPathElement(const std::string& uniqueName) {
  std::string element;
  for (char c : uniqueName) {
    if (c == ':') continue;
    element += c == '.' ? '_' : c;
  }
  return element;
}

bool missingPortal(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT);
}

[[noreturn]] void throwCallFailure(ErrorPtr error, std::string_view what, bool invalidArgumentsMeanMissing) {
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) throw CancelledError();
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
    throw CaptureError(CaptureError::Case::portalTimedOut, fmt::format("{} ({})", what, error->message));
  // Reading the properties of an interface that the object lacks is "invalid arguments" to GDBus.
  if (missingPortal(error.get()) ||
      (invalidArgumentsMeanMissing && g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS))) {
    g_dbus_error_strip_remote_error(error.get());
    throw CaptureError(CaptureError::Case::portalUnavailable, error->message);
  }
  g_dbus_error_strip_remote_error(error.get());
  throw CaptureError(CaptureError::Case::portalFailed, fmt::format("{}: {}", what, error->message));
}

struct CallOptions {
  const char* path = portalObjectPath;
  const char* interface = screenCastInterface;
  std::chrono::milliseconds timeout{};
  bool invalidArgumentsMeanMissing = false;
  GUnixFDList** fdsOut = nullptr;
};

VariantPtr callPortal(GDBusConnection* connection, const char* method, GVariant* parameters,
                      const GVariantType* replyType, const std::stop_token& stop, const CallOptions& options) {
  StopCancellable cancellable(stop);
  GError* raw = nullptr;
  GVariant* reply = g_dbus_connection_call_with_unix_fd_list_sync(
      connection, portalBusName, options.path, options.interface, method, parameters, replyType, G_DBUS_CALL_FLAGS_NONE,
      int(options.timeout.count()), nullptr, options.fdsOut, cancellable.get(), &raw);
  if (reply == nullptr) throwCallFailure(ErrorPtr(raw), method, options.invalidArgumentsMeanMissing);
  return VariantPtr(reply);
}

// The session bus address without GIO's fallbacks: GIO would otherwise start dbus-launch through
// X11 autolaunch, and a recorder must not spawn a bus of its own that no portal listens on.
std::string sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return address;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    std::filesystem::path socket = std::filesystem::path(runtime) / "bus";
    struct stat status {};
    if (::stat(socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) return "unix:path=" + socket.string();
  }
  throw CaptureError(CaptureError::Case::sessionBusUnavailable,
                     "DBUS_SESSION_BUS_ADDRESS is not set and $XDG_RUNTIME_DIR/bus is not a socket");
}

ConnectionPtr connectSessionBus(const std::stop_token& stop) {
  std::string address = sessionBusAddress();
  StopCancellable cancellable(stop);
  GError* raw = nullptr;
  GDBusConnection* connection =
      g_dbus_connection_new_for_address_sync(address.c_str(),
                                             GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                             nullptr, cancellable.get(), &raw);
  if (connection == nullptr) {
    ErrorPtr error(raw);
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) throw CancelledError();
    throw CaptureError(CaptureError::Case::sessionBusUnavailable, fmt::format("{} ({})", error->message, address));
  }
  return ConnectionPtr(connection);
}

struct PortalProperties {
  std::uint32_t version = 1;  // the property came with version 1's successor; its absence means 1
  std::uint32_t sourceTypes = 0;
  std::uint32_t cursorModes = 0;
};

PortalProperties readPortalProperties(GDBusConnection* connection, const std::stop_token& stop,
                                      std::chrono::milliseconds timeout) {
  CallOptions options;
  options.interface = "org.freedesktop.DBus.Properties";
  options.timeout = timeout;
  options.invalidArgumentsMeanMissing = true;
  VariantPtr reply = callPortal(connection, "GetAll", g_variant_new("(s)", screenCastInterface),
                                G_VARIANT_TYPE("(a{sv})"), stop, options);
  VariantPtr properties(g_variant_get_child_value(reply.get(), 0));
  PortalProperties result;
  guint32 value = 0;
  if (g_variant_lookup(properties.get(), "version", "u", &value)) result.version = value;
  if (g_variant_lookup(properties.get(), "AvailableSourceTypes", "u", &value)) result.sourceTypes = value;
  if (g_variant_lookup(properties.get(), "AvailableCursorModes", "u", &value)) result.cursorModes = value;
  return result;
}

bool plausibleToken(std::string_view token) {
  if (token.empty() || token.size() > maximumTokenLength) return false;
  for (char c : token)
    if (c < 0x21 || c > 0x7e) return false;
  return true;
}

template <class E, std::size_t N>
std::vector<E> decodeMask(std::uint32_t mask, const NameTable<E, N>& table) {
  std::vector<E> cases;
  for (const auto& [value, word] : table)
    if (mask & std::uint32_t(value)) cases.push_back(value);
  return cases;
}

std::vector<ScreenCastStream> readStreams(GVariant* results) {
  std::vector<ScreenCastStream> streams;
  VariantPtr list(g_variant_lookup_value(results, "streams", G_VARIANT_TYPE("a(ua{sv})")));
  if (!list) return streams;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, list.get());
  guint32 node = 0;
  GVariant* raw = nullptr;
  while (g_variant_iter_next(&iterator, "(u@a{sv})", &node, &raw)) {
    VariantPtr properties(raw);
    ScreenCastStream stream;
    stream.nodeID = node;
    gint32 a = 0, b = 0;
    if (g_variant_lookup(properties.get(), "position", "(ii)", &a, &b))
      stream.position = PointValue{double(a), double(b)};
    if (g_variant_lookup(properties.get(), "size", "(ii)", &a, &b) && a > 0 && b > 0)
      stream.size = SizeValue{double(a), double(b)};
    guint32 type = 0;
    if (g_variant_lookup(properties.get(), "source_type", "u", &type)) {
      for (const auto& [value, word] : EnumNames<ScreenCastSourceType>::table)
        if (type == std::uint32_t(value)) stream.sourceType = value;
    }
    streams.push_back(stream);
  }
  return streams;
}

struct Answer {
  std::uint32_t code = 0;
  VariantPtr results;
};

}  // namespace

std::vector<ScreenCastSourceType> decodeScreenCastSourceTypes(std::uint32_t mask) {
  return decodeMask(mask, EnumNames<ScreenCastSourceType>::table);
}

std::vector<ScreenCastCursorMode> decodeScreenCastCursorModes(std::uint32_t mask) {
  return decodeMask(mask, EnumNames<ScreenCastCursorMode>::table);
}

std::optional<ScreenCastCursorMode> preferredCursorMode(std::uint32_t availableCursorModes) {
  for (auto mode : {ScreenCastCursorMode::metadata, ScreenCastCursorMode::embedded})
    if (availableCursorModes & std::uint32_t(mode)) return mode;
  return std::nullopt;
}

std::string screenCastRequestPath(const std::string& uniqueName, const std::string& handleToken) {
  return fmt::format("/org/freedesktop/portal/desktop/request/{}/{}", objectPathElement(uniqueName), handleToken);
}

std::string screenCastSessionPath(const std::string& uniqueName, const std::string& sessionToken) {
  return fmt::format("/org/freedesktop/portal/desktop/session/{}/{}", objectPathElement(uniqueName), sessionToken);
}

OwnedFileDescriptor::~OwnedFileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

OwnedFileDescriptor& OwnedFileDescriptor::operator=(OwnedFileDescriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

std::filesystem::path defaultScreenCastRestoreTokenFile() { return vumoSupportDirectory() / "ScreenCastRestoreToken"; }

std::optional<std::string> readScreenCastRestoreToken(const std::filesystem::path& file) {
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(file, error))) return std::nullopt;
  std::string bytes;
  try {
    bytes = readFile(file, maximumTokenFileBytes);
  } catch (const FileError&) {
    return std::nullopt;
  }
  while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r')) bytes.pop_back();
  if (!plausibleToken(bytes)) return std::nullopt;
  return bytes;
}

void to_json(Json& j, const ScreenCastPortalProbe& v) {
  j = Json{{"version", v.version},
           {"availableSourceTypes", v.sourceTypes},
           {"availableCursorModes", v.cursorModes},
           {"restoreTokenStored", v.restoreTokenStored}};
}

ScreenCastPortalProbe probeScreenCastPortal(const ScreenCastPortalOptions& options, std::stop_token stop) {
  ConnectionPtr connection = connectSessionBus(stop);
  PortalProperties properties = readPortalProperties(connection.get(), stop, options.callTimeout);
  g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
  ScreenCastPortalProbe probe;
  probe.version = properties.version;
  probe.sourceTypes = decodeScreenCastSourceTypes(properties.sourceTypes);
  probe.cursorModes = decodeScreenCastCursorModes(properties.cursorModes);
  probe.restoreTokenStored =
      readScreenCastRestoreToken(options.restoreTokenFile.value_or(defaultScreenCastRestoreTokenFile())).has_value();
  return probe;
}

// The portal answers every request through a signal on an object of its own, so the object holds
// a thread that runs a GLib main context of its own: the signal subscriptions are made on that
// thread (GDBus delivers to the context that was current when subscribing) and the waiting caller
// sleeps on a condition variable that both the answers and a stop request wake.
struct ScreenCastPortal::State {
  ScreenCastPortalOptions options;
  SessionClosedHandler onSessionClosed;

  GMainContext* context = nullptr;
  std::thread loopThread;
  std::atomic<bool> quitting{false};

  ConnectionPtr connection;
  std::string uniqueName;
  std::vector<guint> subscriptions;
  guint nameWatch = 0;

  std::mutex mutex;
  std::condition_variable_any changed;
  std::map<std::string, Answer> answers;  // by request path
  std::optional<std::string> ended;       // why the portal or the session went away
  std::string sessionHandle;
  bool portalSeen = false;
  bool started = false;
  bool sessionClosed = false;  // by us or by the desktop; either way nothing more to close
  bool startCalled = false;

  std::string newToken() {
    static std::atomic<unsigned> counter{0};
    static const unsigned salt = std::random_device{}();
    return fmt::format("vumo_{:08x}_{}", salt, counter++);
  }

  void runLoop() {
    g_main_context_push_thread_default(context);
    while (!quitting.load()) g_main_context_iteration(context, TRUE);
    g_main_context_pop_thread_default(context);
  }

  // Runs `job` on the loop thread and waits for it.
  void onLoop(std::function<void()> job) { invokeOnContextAndWait(context, std::move(job)); }

  void startLoop(const std::stop_token& stop) {
    context = g_main_context_new();
    loopThread = std::thread([this] { runLoop(); });
    // Made on the loop thread so that the connection's own notices arrive there too.
    onLoop([&] { connection = connectSessionBus(stop); });
    uniqueName = g_dbus_connection_get_unique_name(connection.get());
  }

  void stopLoop() {
    if (!loopThread.joinable()) return;
    quitting = true;
    g_main_context_wakeup(context);
    loopThread.join();
  }

  ~State() {
    stopLoop();
    if (nameWatch != 0) g_bus_unwatch_name(nameWatch);
    if (connection) {
      g_signal_handlers_disconnect_by_data(connection.get(), this);
      for (guint id : subscriptions) g_dbus_connection_signal_unsubscribe(connection.get(), id);
    }
    if (connection) g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
    connection.reset();
    if (context) {
      // Let pending sources free what they hold before the context goes.
      while (g_main_context_iteration(context, FALSE)) {
      }
      g_main_context_unref(context);
    }
  }

  static void onResponse(GDBusConnection*, const gchar*, const gchar* path, const gchar*, const gchar*,
                         GVariant* parameters, gpointer data) {
    auto* self = static_cast<State*>(data);
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})"))) return;
    guint32 code = 0;
    GVariant* results = nullptr;
    g_variant_get(parameters, "(u@a{sv})", &code, &results);
    {
      std::lock_guard lock(self->mutex);
      self->answers[path] = Answer{code, VariantPtr(results)};
    }
    self->changed.notify_all();
  }

  void portalEnded(const std::string& why) {
    bool tell = false;
    {
      std::lock_guard lock(mutex);
      if (ended || sessionClosed) return;
      ended = why;
      tell = started;
    }
    changed.notify_all();
    if (tell && onSessionClosed) onSessionClosed();
  }

  static void onSessionClosedSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
                                    gpointer data) {
    static_cast<State*>(data)->portalEnded("the desktop closed the screen-cast session");
  }

  void subscribe(const char* interface, const char* member, const std::string& path, GDBusSignalCallback callback) {
    onLoop([&] {
      subscriptions.push_back(g_dbus_connection_signal_subscribe(connection.get(), portalBusName, interface, member,
                                                                 path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                                 callback, this, nullptr));
    });
  }

  // From here on the portal is running (it answered), so its leaving the bus is news.
  void watchPortal() {
    onLoop([&] {
      nameWatch = g_bus_watch_name_on_connection(
          connection.get(), portalBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
          [](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
            auto* self = static_cast<State*>(data);
            std::lock_guard lock(self->mutex);
            self->portalSeen = true;
          },
          [](GDBusConnection*, const gchar*, gpointer data) {
            auto* self = static_cast<State*>(data);
            {
              std::lock_guard lock(self->mutex);
              if (!self->portalSeen) return;
            }
            self->portalEnded("the screen-cast portal left the session bus");
          },
          this, nullptr);
      g_signal_connect(connection.get(), "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
                         static_cast<State*>(data)->portalEnded("the session bus closed the connection");
                       }),
                       this);
    });
  }

  void closeRequest(const std::string& path) {
    // Dismisses the dialog of a request nobody waits for any more.
    g_dbus_connection_call(connection.get(), portalBusName, path.c_str(), requestInterface, "Close", nullptr, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, sessionCloseTimeoutMilliseconds, nullptr, nullptr, nullptr);
    g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
  }

  Answer awaitAnswer(const std::string& path, const char* method, const std::stop_token& stop) {
    auto deadline = std::chrono::steady_clock::now() + options.responseTimeout;
    std::unique_lock lock(mutex);
    changed.wait_until(lock, stop, deadline, [&] { return answers.contains(path) || ended.has_value(); });
    if (auto found = answers.find(path); found != answers.end()) {
      Answer answer = std::move(found->second);
      answers.erase(found);
      return answer;
    }
    std::optional<std::string> why = ended;
    lock.unlock();
    if (why) throw CaptureError(CaptureError::Case::portalFailed, fmt::format("{}: {}", method, *why));
    closeRequest(path);
    if (stop.stop_requested()) throw CancelledError();
    throw CaptureError(CaptureError::Case::portalTimedOut,
                       fmt::format("{} waited {} s", method,
                                   std::chrono::duration_cast<std::chrono::seconds>(options.responseTimeout).count()));
  }

  // Calls a method that answers through a Request object and returns the answer's results. The
  // Response signal is subscribed to on the predicted path before the call, since the portal may
  // answer before the call's own reply has been read.
  VariantPtr request(const char* method, const std::function<GVariant*(const std::string& token)>& parameters,
                     const std::stop_token& stop) {
    std::string token = newToken();
    std::string path = screenCastRequestPath(uniqueName, token);
    subscribe(requestInterface, "Response", path, &State::onResponse);
    CallOptions call;
    call.timeout = options.callTimeout;
    VariantPtr reply;
    try {
      reply = callPortal(connection.get(), method, parameters(token), G_VARIANT_TYPE("(o)"), stop, call);
    } catch (const CancelledError&) {
      // The portal may have put its dialog up before the stop reached the call.
      closeRequest(path);
      throw;
    }
    const gchar* handle = nullptr;
    g_variant_get(reply.get(), "(&o)", &handle);
    if (path != handle) {
      // A portal that ignores handle_token chose its own path; its answer can only be awaited there.
      path = handle;
      subscribe(requestInterface, "Response", path, &State::onResponse);
    }
    Answer answer = awaitAnswer(path, method, stop);
    if (answer.code == 0) return std::move(answer.results);
    if (answer.code == responseCancelled) throw CancelledError();
    throw CaptureError(CaptureError::Case::portalFailed, fmt::format("{} ended with response {}", method, answer.code));
  }

  void closeSession() {
    std::string handle;
    {
      std::lock_guard lock(mutex);
      if (sessionHandle.empty() || sessionClosed || ended) return;
      sessionClosed = true;
      handle = sessionHandle;
    }
    CallOptions call;
    call.path = handle.c_str();
    call.interface = sessionInterface;
    call.timeout = std::chrono::milliseconds(sessionCloseTimeoutMilliseconds);
    std::stop_source never;
    try {
      callPortal(connection.get(), "Close", nullptr, nullptr, never.get_token(), call);
    } catch (const std::exception&) {
      // The portal closes the session anyway when this connection ends.
    }
  }

  ScreenCastGrant start(const ScreenCastRequest& request, const std::stop_token& stop);
};

ScreenCastGrant ScreenCastPortal::State::start(const ScreenCastRequest& wanted, const std::stop_token& stop) {
  throwIfCancelled(stop);
  startLoop(stop);
  PortalProperties properties = readPortalProperties(connection.get(), stop, options.callTimeout);
  if (properties.sourceTypes != 0 && !(properties.sourceTypes & std::uint32_t(wanted.sourceType))) {
    std::string offered;
    for (auto type : decodeScreenCastSourceTypes(properties.sourceTypes))
      offered += fmt::format("{}{}", offered.empty() ? "" : ", ", nameOf(type));
    throw CaptureError(CaptureError::Case::sourceTypeUnavailable,
                       fmt::format("{} (it offers {})", nameOf(wanted.sourceType), offered));
  }

  ScreenCastGrant grant;
  grant.version = properties.version;
  std::optional<ScreenCastCursorMode> cursorMode;
  if (properties.version >= firstVersionWithCursorModes) cursorMode = preferredCursorMode(properties.cursorModes);
  grant.cursorMode = cursorMode.value_or(ScreenCastCursorMode::hidden);
  bool persists = properties.version >= firstVersionWithRestoreTokens;
  std::filesystem::path tokenFile = options.restoreTokenFile.value_or(defaultScreenCastRestoreTokenFile());
  std::optional<std::string> storedToken;
  if (persists && wanted.useStoredToken) storedToken = readScreenCastRestoreToken(tokenFile);

  std::string sessionToken = newToken();
  std::string predictedSession = screenCastSessionPath(uniqueName, sessionToken);
  subscribe(sessionInterface, "Closed", predictedSession, &State::onSessionClosedSignal);
  {
    std::lock_guard lock(mutex);
    // Until the portal names it, the session is where it will be: a stop or a failure while
    // CreateSession is under way still closes it.
    sessionHandle = predictedSession;
  }
  try {
    VariantPtr created = request(
        "CreateSession",
        [&](const std::string& token) {
          GVariantBuilder builder;
          g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
          g_variant_builder_add(&builder, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
          g_variant_builder_add(&builder, "{sv}", "session_handle_token", g_variant_new_string(sessionToken.c_str()));
          return g_variant_new("(a{sv})", &builder);
        },
        stop);
    watchPortal();
    // The handle is a string in the documented interface; some portals send an object path.
    const gchar* handle = nullptr;
    if (!g_variant_lookup(created.get(), "session_handle", "&s", &handle) &&
        !g_variant_lookup(created.get(), "session_handle", "&o", &handle))
      throw CaptureError(CaptureError::Case::portalFailed, "CreateSession gave no session handle");
    if (!g_variant_is_object_path(handle))
      throw CaptureError(CaptureError::Case::portalFailed, "CreateSession gave an invalid session handle");
    {
      std::lock_guard lock(mutex);
      sessionHandle = handle;
    }
    if (sessionHandle != predictedSession)
      subscribe(sessionInterface, "Closed", sessionHandle, &State::onSessionClosedSignal);

    request(
        "SelectSources",
        [&](const std::string& token) {
          GVariantBuilder builder;
          g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
          g_variant_builder_add(&builder, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
          g_variant_builder_add(&builder, "{sv}", "types", g_variant_new_uint32(std::uint32_t(wanted.sourceType)));
          g_variant_builder_add(&builder, "{sv}", "multiple", g_variant_new_boolean(FALSE));
          if (cursorMode)
            g_variant_builder_add(&builder, "{sv}", "cursor_mode", g_variant_new_uint32(std::uint32_t(*cursorMode)));
          if (persists) {
            g_variant_builder_add(&builder, "{sv}", "persist_mode", g_variant_new_uint32(persistUntilRevoked));
            if (storedToken)
              g_variant_builder_add(&builder, "{sv}", "restore_token", g_variant_new_string(storedToken->c_str()));
          }
          return g_variant_new("(oa{sv})", sessionHandle.c_str(), &builder);
        },
        stop);
    grant.restored = storedToken.has_value();

    VariantPtr startResults = request(
        "Start",
        [&](const std::string& token) {
          GVariantBuilder builder;
          g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
          g_variant_builder_add(&builder, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
          return g_variant_new("(osa{sv})", sessionHandle.c_str(), "", &builder);
        },
        stop);
    if (persists) {
      // A token is good for one restore: the one just used is spent whether or not a new one came.
      const gchar* newToken = nullptr;
      if (g_variant_lookup(startResults.get(), "restore_token", "&s", &newToken) && plausibleToken(newToken)) {
        createDirectories(tokenFile.parent_path());
        writeFileAtomically(tokenFile, std::string(newToken) + "\n");
      } else if (storedToken) {
        std::error_code ignored;
        std::filesystem::remove(tokenFile, ignored);
      }
    }
    grant.streams = readStreams(startResults.get());
    if (grant.streams.empty()) throw CaptureError(CaptureError::Case::portalFailed, "Start granted no stream");

    GUnixFDList* rawFds = nullptr;
    CallOptions call;
    call.timeout = options.callTimeout;
    call.fdsOut = &rawFds;
    VariantPtr remote = callPortal(connection.get(), "OpenPipeWireRemote",
                                   g_variant_new("(o@a{sv})", sessionHandle.c_str(), g_variant_new("a{sv}", nullptr)),
                                   G_VARIANT_TYPE("(h)"), stop, call);
    FDListPtr fds(rawFds);
    gint32 index = -1;
    g_variant_get(remote.get(), "(h)", &index);
    if (!fds || index < 0 || index >= g_unix_fd_list_get_length(fds.get()))
      throw CaptureError(CaptureError::Case::portalFailed, "OpenPipeWireRemote gave no file descriptor");
    GError* raw = nullptr;
    int fd = g_unix_fd_list_get(fds.get(), index, &raw);
    if (fd < 0) {
      ErrorPtr error(raw);
      throw CaptureError(CaptureError::Case::portalFailed, fmt::format("OpenPipeWireRemote: {}", error->message));
    }
    grant.pipeWireRemote = OwnedFileDescriptor(fd);
    {
      std::lock_guard lock(mutex);
      if (ended) throw CaptureError(CaptureError::Case::portalFailed, *ended);
      started = true;
    }
  } catch (...) {
    closeSession();
    throw;
  }
  return grant;
}

ScreenCastPortal::ScreenCastPortal(ScreenCastPortalOptions options, SessionClosedHandler onSessionClosed)
    : state_(std::make_unique<State>()) {
  state_->options = std::move(options);
  state_->onSessionClosed = std::move(onSessionClosed);
}

ScreenCastPortal::~ScreenCastPortal() { close(); }

ScreenCastGrant ScreenCastPortal::start(const ScreenCastRequest& request, std::stop_token stop) {
  if (state_->startCalled) throw std::logic_error("ScreenCastPortal::start is called once per session");
  state_->startCalled = true;
  return state_->start(request, stop);
}

void ScreenCastPortal::close() {
  if (state_->connection) state_->closeSession();
}

}  // namespace vumo
