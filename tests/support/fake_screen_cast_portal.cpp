#include "support/fake_screen_cast_portal.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include "capture/glib_invoke.h"

namespace vumo::testing {

namespace {

constexpr const char* portalBusName = "org.freedesktop.portal.Desktop";
constexpr const char* portalObjectPath = "/org/freedesktop/portal/desktop";

constexpr const char* introspection = R"(<node>
  <interface name="org.freedesktop.portal.ScreenCast">
    <method name="CreateSession">
      <arg type="a{sv}" name="options" direction="in"/><arg type="o" name="handle" direction="out"/>
    </method>
    <method name="SelectSources">
      <arg type="o" name="session_handle" direction="in"/><arg type="a{sv}" name="options" direction="in"/>
      <arg type="o" name="handle" direction="out"/>
    </method>
    <method name="Start">
      <arg type="o" name="session_handle" direction="in"/><arg type="s" name="parent_window" direction="in"/>
      <arg type="a{sv}" name="options" direction="in"/><arg type="o" name="handle" direction="out"/>
    </method>
    <method name="OpenPipeWireRemote">
      <arg type="o" name="session_handle" direction="in"/><arg type="a{sv}" name="options" direction="in"/>
      <arg type="h" name="fd" direction="out"/>
    </method>
    <property name="AvailableSourceTypes" type="u" access="read"/>
    <property name="AvailableCursorModes" type="u" access="read"/>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.freedesktop.portal.Settings">
    <method name="ReadAll">
      <arg type="as" name="namespaces" direction="in"/><arg type="a{sa{sv}}" name="value" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.portal.Request">
    <method name="Close"/>
    <signal name="Response"><arg type="u" name="response"/><arg type="a{sv}" name="results"/></signal>
  </interface>
  <interface name="org.freedesktop.portal.Session">
    <method name="Close"/>
    <signal name="Closed"><arg type="a{sv}" name="details"/></signal>
    <property name="version" type="u" access="read"/>
  </interface>
</node>)";

std::string pathElement(const std::string& uniqueName) {
  std::string element;
  for (char c : uniqueName) {
    if (c == ':') continue;
    element += c == '.' ? '_' : c;
  }
  return element;
}

std::optional<std::string> lookupString(GVariant* options, const char* key) {
  const gchar* value = nullptr;
  if (g_variant_lookup(options, key, "&s", &value)) return std::string(value);
  return std::nullopt;
}

std::optional<std::uint32_t> lookupUnsigned(GVariant* options, const char* key) {
  guint32 value = 0;
  if (g_variant_lookup(options, key, "u", &value)) return value;
  return std::nullopt;
}

struct Session {
  std::string owner;
  guint registration = 0;
  bool restored = false;
  bool persists = false;
  bool started = false;
};

struct PendingRequest {
  std::string owner;
  guint registration = 0;
  bool unanswered = false;  // its dialog is left waiting (FakePortalResponse::never)
};

}  // namespace

struct FakeScreenCastPortal::State {
  FakeScreenCastPortalOptions settings;
  GMainContext* context = nullptr;
  std::thread thread;
  std::atomic<bool> quitting{false};
  GDBusConnection* connection = nullptr;
  GDBusNodeInfo* node = nullptr;
  guint portalRegistration = 0;
  guint ownerChanges = 0;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::map<std::string, FakePortalResponse> responses;
  std::map<std::string, Session> sessions;         // by path
  std::map<std::string, PendingRequest> requests;  // by path, registered until answered or closed
  std::vector<std::string> validTokens;
  std::vector<std::string> issuedTokens;
  std::vector<FakeSelectSources> selectSourcesSeen;
  std::vector<std::string> parentWindows;
  int dialogs = 0;
  int refusedTokens = 0;
  int requestsClosed = 0;
  int sessionsClosed = 0;
  int peer = -1;
  unsigned tokenSalt = std::random_device{}();

  const GDBusInterfaceInfo* interface(const char* name) const { return g_dbus_node_info_lookup_interface(node, name); }

  FakePortalResponse responseFor(const std::string& method) {
    std::lock_guard lock(mutex);
    auto found = responses.find(method);
    return found == responses.end() ? FakePortalResponse::granted : found->second;
  }

  guint registerObject(const std::string& path, const char* interfaceName) {
    static const GDBusInterfaceVTable vtable{&State::onMethodCall, &State::onGetProperty, nullptr, {}};
    GError* error = nullptr;
    guint id = g_dbus_connection_register_object(connection, path.c_str(),
                                                 const_cast<GDBusInterfaceInfo*>(interface(interfaceName)), &vtable,
                                                 this, nullptr, &error);
    if (id == 0) {
      std::string message = error->message;
      g_error_free(error);
      throw std::runtime_error("fake portal: cannot export " + path + ": " + message);
    }
    return id;
  }

  // The request object is exported before the call returns and answered after its reply, as the
  // real portal does: a client that subscribes only once the reply arrived may miss the answer.
  std::string beginRequest(GDBusMethodInvocation* invocation, GVariant* options) {
    std::string sender = g_dbus_method_invocation_get_sender(invocation);
    std::string token = lookupString(options, "handle_token").value_or("t" + std::to_string(++tokenSalt));
    std::string path = "/org/freedesktop/portal/desktop/request/" + pathElement(sender) + "/" + token;
    guint id = registerObject(path, "org.freedesktop.portal.Request");
    std::lock_guard lock(mutex);
    requests[path] = PendingRequest{sender, id};
    changed.notify_all();
    return path;
  }

  void answer(const std::string& path, FakePortalResponse response, GVariant* results) {
    g_variant_ref_sink(results);
    std::string owner;
    {
      std::lock_guard lock(mutex);
      auto found = requests.find(path);
      if (found != requests.end()) owner = found->second.owner;
    }
    if (response == FakePortalResponse::never) {
      std::lock_guard lock(mutex);
      if (auto found = requests.find(path); found != requests.end()) found->second.unanswered = true;
    } else if (!owner.empty()) {
      g_dbus_connection_emit_signal(connection, owner.c_str(), path.c_str(), "org.freedesktop.portal.Request",
                                    "Response", g_variant_new("(u@a{sv})", std::uint32_t(response), results), nullptr);
      std::lock_guard lock(mutex);
      g_dbus_connection_unregister_object(connection, requests[path].registration);
      requests.erase(path);
    }
    g_variant_unref(results);
    changed.notify_all();
  }

  static GVariant* emptyResults() { return g_variant_new("a{sv}", nullptr); }

  Session* ownedSession(GDBusMethodInvocation* invocation, const char* path) {
    auto found = sessions.find(path);
    if (found == sessions.end() || found->second.owner != g_dbus_method_invocation_get_sender(invocation)) {
      g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.portal.Error.InvalidArgument",
                                                 "Invalid session");
      return nullptr;
    }
    return &found->second;
  }

  void createSession(GDBusMethodInvocation* invocation, GVariant* parameters) {
    GVariant* options = g_variant_get_child_value(parameters, 0);
    std::string sender = g_dbus_method_invocation_get_sender(invocation);
    std::string sessionToken = lookupString(options, "session_handle_token").value_or("s");
    std::string sessionPath = "/org/freedesktop/portal/desktop/session/" + pathElement(sender) + "/" + sessionToken;
    std::string path = beginRequest(invocation, options);
    g_variant_unref(options);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
    FakePortalResponse response = responseFor("CreateSession");
    GVariantBuilder results;
    g_variant_builder_init(&results, G_VARIANT_TYPE_VARDICT);
    if (response == FakePortalResponse::granted) {
      guint id = registerObject(sessionPath, "org.freedesktop.portal.Session");
      {
        std::lock_guard lock(mutex);
        sessions[sessionPath] = Session{sender, id};
      }
      g_variant_builder_add(&results, "{sv}", "session_handle", g_variant_new_string(sessionPath.c_str()));
    }
    answer(path, response, g_variant_builder_end(&results));
  }

  void selectSources(GDBusMethodInvocation* invocation, GVariant* parameters) {
    const gchar* sessionPath = nullptr;
    GVariant* options = nullptr;
    g_variant_get(parameters, "(&o@a{sv})", &sessionPath, &options);
    std::unique_lock lock(mutex);
    Session* session = ownedSession(invocation, sessionPath);
    if (!session) {
      g_variant_unref(options);
      return;
    }
    FakeSelectSources call;
    call.types = lookupUnsigned(options, "types").value_or(0);
    gboolean multiple = FALSE;
    if (g_variant_lookup(options, "multiple", "b", &multiple)) call.multiple = multiple;
    call.cursorMode = lookupUnsigned(options, "cursor_mode");
    call.persistMode = lookupUnsigned(options, "persist_mode");
    call.restoreToken = lookupString(options, "restore_token");
    selectSourcesSeen.push_back(call);
    // Portals of version 3 know nothing of persistence and ignore those options.
    if (settings.version >= 4) {
      session->persists = call.persistMode.value_or(0) != 0;
      if (call.restoreToken) {
        auto found = std::find(validTokens.begin(), validTokens.end(), *call.restoreToken);
        if (found != validTokens.end()) {
          validTokens.erase(found);
          session->restored = true;
        } else {
          ++refusedTokens;
        }
      }
    }
    lock.unlock();
    std::string path = beginRequest(invocation, options);
    g_variant_unref(options);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
    answer(path, responseFor("SelectSources"), emptyResults());
  }

  void start(GDBusMethodInvocation* invocation, GVariant* parameters) {
    const gchar* sessionPath = nullptr;
    const gchar* parentWindow = nullptr;
    GVariant* options = nullptr;
    g_variant_get(parameters, "(&o&s@a{sv})", &sessionPath, &parentWindow, &options);
    FakePortalResponse response = responseFor("Start");
    GVariantBuilder results;
    g_variant_builder_init(&results, G_VARIANT_TYPE_VARDICT);
    {
      std::lock_guard lock(mutex);
      Session* session = ownedSession(invocation, sessionPath);
      if (!session) {
        g_variant_unref(options);
        return;
      }
      parentWindows.push_back(parentWindow);
      if (!session->restored) ++dialogs;
      if (response == FakePortalResponse::granted) {
        session->started = true;
        GVariantBuilder streams;
        g_variant_builder_init(&streams, G_VARIANT_TYPE("a(ua{sv})"));
        std::vector<FakeScreenCastStream> granted = settings.streams;
        if (granted.empty()) granted.emplace_back();
        for (const auto& stream : granted) {
          GVariantBuilder properties;
          g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
          if (stream.position)
            g_variant_builder_add(&properties, "{sv}", "position",
                                  g_variant_new("(ii)", stream.position->first, stream.position->second));
          if (stream.size)
            g_variant_builder_add(&properties, "{sv}", "size",
                                  g_variant_new("(ii)", stream.size->first, stream.size->second));
          g_variant_builder_add(&properties, "{sv}", "source_type", g_variant_new_uint32(stream.sourceType));
          g_variant_builder_add(&streams, "(u@a{sv})", stream.nodeID, g_variant_builder_end(&properties));
        }
        g_variant_builder_add(&results, "{sv}", "streams", g_variant_builder_end(&streams));
        if (settings.version >= 4 && session->persists) {
          std::string token = "restore-" + std::to_string(tokenSalt) + "-" + std::to_string(issuedTokens.size());
          validTokens.push_back(token);
          issuedTokens.push_back(token);
          g_variant_builder_add(&results, "{sv}", "restore_token", g_variant_new_string(token.c_str()));
        }
      }
    }
    std::string path = beginRequest(invocation, options);
    g_variant_unref(options);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
    answer(path, response, g_variant_builder_end(&results));
  }

  int remoteDescriptor() {
    if (settings.pipeWireSocket) {
      int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, settings.pipeWireSocket->c_str(), sizeof address.sun_path - 1);
      if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
      if (fd >= 0) ::close(fd);
      return -1;
    }
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    std::lock_guard lock(mutex);
    if (peer >= 0) ::close(peer);
    peer = pair[1];
    return pair[0];
  }

  void openPipeWireRemote(GDBusMethodInvocation* invocation, GVariant* parameters) {
    const gchar* sessionPath = nullptr;
    g_variant_get(parameters, "(&o@a{sv})", &sessionPath, nullptr);
    {
      std::lock_guard lock(mutex);
      Session* session = ownedSession(invocation, sessionPath);
      if (!session) return;
      if (!session->started) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.portal.Error.Failed",
                                                   "Session not started");
        return;
      }
    }
    int fd = remoteDescriptor();
    if (fd < 0) {
      g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.portal.Error.Failed",
                                                 "No PipeWire remote");
      return;
    }
    GUnixFDList* fds = g_unix_fd_list_new_from_array(&fd, 1);
    g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0), fds);
    g_object_unref(fds);
  }

  void closeObject(GDBusMethodInvocation* invocation, const std::string& path, bool isSession) {
    {
      std::lock_guard lock(mutex);
      if (isSession) {
        auto found = sessions.find(path);
        if (found != sessions.end()) {
          g_dbus_connection_unregister_object(connection, found->second.registration);
          sessions.erase(found);
          ++sessionsClosed;
        }
      } else {
        auto found = requests.find(path);
        if (found != requests.end()) {
          g_dbus_connection_unregister_object(connection, found->second.registration);
          requests.erase(found);
          ++requestsClosed;
        }
      }
    }
    changed.notify_all();
    g_dbus_method_invocation_return_value(invocation, nullptr);
  }

  static void onMethodCall(GDBusConnection*, const gchar*, const gchar* path, const gchar* interfaceName,
                           const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                           gpointer data) {
    auto* self = static_cast<State*>(data);
    std::string_view name = method;
    std::string_view interface = interfaceName;
    if (interface == "org.freedesktop.portal.Request" && name == "Close")
      return self->closeObject(invocation, path, false);
    if (interface == "org.freedesktop.portal.Session" && name == "Close")
      return self->closeObject(invocation, path, true);
    if (name == "CreateSession") return self->createSession(invocation, parameters);
    if (name == "SelectSources") return self->selectSources(invocation, parameters);
    if (name == "Start") return self->start(invocation, parameters);
    if (name == "OpenPipeWireRemote") return self->openPipeWireRemote(invocation, parameters);
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod",
                                               "Unknown method");
  }

  static GVariant* onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property,
                                 GError** error, gpointer data) {
    auto* self = static_cast<State*>(data);
    std::string_view name = property;
    if (name == "version") return g_variant_new_uint32(self->settings.version);
    if (name == "AvailableSourceTypes") return g_variant_new_uint32(self->settings.availableSourceTypes);
    if (name == "AvailableCursorModes") return g_variant_new_uint32(self->settings.availableCursorModes);
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "No such property");
    return nullptr;
  }

  // A client that leaves the bus takes its sessions and dialogs with it, as with the real portal.
  static void onNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                 GVariant* parameters, gpointer data) {
    auto* self = static_cast<State*>(data);
    const gchar* name = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &newOwner);
    if (name[0] != ':' || newOwner[0] != '\0') return;
    {
      std::lock_guard lock(self->mutex);
      for (auto it = self->sessions.begin(); it != self->sessions.end();) {
        if (it->second.owner != name) {
          ++it;
          continue;
        }
        g_dbus_connection_unregister_object(self->connection, it->second.registration);
        it = self->sessions.erase(it);
      }
      for (auto it = self->requests.begin(); it != self->requests.end();) {
        if (it->second.owner != name) {
          ++it;
          continue;
        }
        g_dbus_connection_unregister_object(self->connection, it->second.registration);
        it = self->requests.erase(it);
      }
    }
    self->changed.notify_all();
  }

  void emitClosedOnEverySession() {
    std::lock_guard lock(mutex);
    for (auto& [path, session] : sessions) {
      g_dbus_connection_emit_signal(connection, session.owner.c_str(), path.c_str(), "org.freedesktop.portal.Session",
                                    "Closed", g_variant_new("(@a{sv})", emptyResults()), nullptr);
      g_dbus_connection_unregister_object(connection, session.registration);
    }
    sessions.clear();
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
  }

  // Runs `job` on the portal's thread and waits for it.
  void onLoop(std::function<void()> job) { invokeOnContextAndWait(context, std::move(job)); }

  void setUp(const std::string& busAddress) {
    GError* error = nullptr;
    connection =
        g_dbus_connection_new_for_address_sync(busAddress.c_str(),
                                               GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                               nullptr, nullptr, &error);
    if (!connection) {
      std::string message = error->message;
      g_error_free(error);
      throw std::runtime_error("fake portal: cannot connect to " + busAddress + ": " + message);
    }
    node = g_dbus_node_info_new_for_xml(introspection, nullptr);
    ownerChanges = g_dbus_connection_signal_subscribe(
        connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus",
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &State::onNameOwnerChanged, this, nullptr);
    portalRegistration = registerObject(portalObjectPath, settings.screenCast ? "org.freedesktop.portal.ScreenCast"
                                                                              : "org.freedesktop.portal.Settings");
    GVariant* reply =
        g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "RequestName", g_variant_new("(su)", portalBusName, 4u /* do not queue */),
                                    G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply) {
      std::string message = error->message;
      g_error_free(error);
      throw std::runtime_error("fake portal: cannot own " + std::string(portalBusName) + ": " + message);
    }
    guint32 result = 0;
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
    if (result != 1) throw std::runtime_error("fake portal: another process owns " + std::string(portalBusName));
  }

  void tearDown() {
    if (!connection) return;
    std::lock_guard lock(mutex);
    for (auto& [path, request] : requests) g_dbus_connection_unregister_object(connection, request.registration);
    for (auto& [path, session] : sessions) g_dbus_connection_unregister_object(connection, session.registration);
    if (portalRegistration) g_dbus_connection_unregister_object(connection, portalRegistration);
    if (ownerChanges) g_dbus_connection_signal_unsubscribe(connection, ownerChanges);
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    connection = nullptr;
  }
};

FakeScreenCastPortal::FakeScreenCastPortal(const std::string& busAddress, FakeScreenCastPortalOptions options)
    : state_(std::make_unique<State>()) {
  state_->settings = std::move(options);
  state_->context = g_main_context_new();
  State* state = state_.get();
  state_->thread = std::thread([state] {
    g_main_context_push_thread_default(state->context);
    while (!state->quitting.load()) g_main_context_iteration(state->context, TRUE);
    state->tearDown();
    while (g_main_context_iteration(state->context, FALSE)) {
    }
    g_main_context_pop_thread_default(state->context);
  });
  try {
    state_->onLoop([&] { state->setUp(busAddress); });
  } catch (...) {
    state_->quitting = true;
    g_main_context_wakeup(state_->context);
    state_->thread.join();
    throw;
  }
}

FakeScreenCastPortal::~FakeScreenCastPortal() {
  state_->quitting = true;
  g_main_context_wakeup(state_->context);
  state_->thread.join();
  if (state_->node) g_dbus_node_info_unref(state_->node);
  g_main_context_unref(state_->context);
  if (state_->peer >= 0) ::close(state_->peer);
}

void FakeScreenCastPortal::setResponse(const std::string& method, FakePortalResponse response) {
  std::lock_guard lock(state_->mutex);
  state_->responses[method] = response;
}

int FakeScreenCastPortal::dialogsShown() const {
  std::lock_guard lock(state_->mutex);
  return state_->dialogs;
}

std::vector<std::string> FakeScreenCastPortal::tokensIssued() const {
  std::lock_guard lock(state_->mutex);
  return state_->issuedTokens;
}

int FakeScreenCastPortal::tokensRefused() const {
  std::lock_guard lock(state_->mutex);
  return state_->refusedTokens;
}

std::vector<FakeSelectSources> FakeScreenCastPortal::selectSourcesCalls() const {
  std::lock_guard lock(state_->mutex);
  return state_->selectSourcesSeen;
}

std::vector<std::string> FakeScreenCastPortal::parentWindows() const {
  std::lock_guard lock(state_->mutex);
  return state_->parentWindows;
}

int FakeScreenCastPortal::requestsClosedByClient() const {
  std::lock_guard lock(state_->mutex);
  return state_->requestsClosed;
}

int FakeScreenCastPortal::sessionsClosedByClient() const {
  std::lock_guard lock(state_->mutex);
  return state_->sessionsClosed;
}

int FakeScreenCastPortal::openSessions() const {
  std::lock_guard lock(state_->mutex);
  return int(state_->sessions.size());
}

bool FakeScreenCastPortal::waitForPendingRequests(int count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] {
    return std::count_if(state_->requests.begin(), state_->requests.end(),
                         [](const auto& entry) { return entry.second.unanswered; }) >= count;
  });
}

void FakeScreenCastPortal::closeSessions() {
  state_->onLoop([this] { state_->emitClosedOnEverySession(); });
}

int FakeScreenCastPortal::remotePeer() const {
  std::lock_guard lock(state_->mutex);
  return state_->peer;
}

}  // namespace vumo::testing
