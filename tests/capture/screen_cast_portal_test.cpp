#include "capture/screen_cast_portal.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "capture/capture_error.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/fake_screen_cast_portal.h"
#include "support/private_session_bus.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::FakePortalResponse;
using testing::FakeScreenCastPortal;
using testing::FakeScreenCastPortalOptions;

template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = 5s) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// Every case runs on a bus of its own, with its own home and data folders.
class ScreenCastPortalTest : public ::testing::Test {
 protected:
  testing::ScopedDataHome dataHome;
  testing::TemporaryDirectory home;
  testing::ScopedEnvironmentVariable homeVariable{"HOME", home.path().string()};
  testing::ScopedEnvironmentVariable runtimeVariable{"XDG_RUNTIME_DIR", home.path().string()};
  testing::PrivateSessionBus bus;

  std::filesystem::path tokenFile() const { return dataHome.path() / "Vumo" / "ScreenCastRestoreToken"; }
  std::optional<std::string> storedToken() const {
    if (!std::filesystem::exists(tokenFile())) return std::nullopt;
    std::string bytes = readFile(tokenFile(), 4096);
    if (!bytes.empty() && bytes.back() == '\n') bytes.pop_back();
    return bytes;
  }

  static ScreenCastGrant startOnce(ScreenCastRequest request = {}, ScreenCastPortalOptions options = {}) {
    ScreenCastPortal portal(options);
    return portal.start(request, std::stop_token{});
  }
};

TEST_F(ScreenCastPortalTest, GrantHandsOverTheRemoteTheStreamAndTheCursorMode) {
  FakeScreenCastPortalOptions options;
  options.streams = {{57, std::pair{1920, 0}, std::pair{2560, 1440}, 1}};
  FakeScreenCastPortal fake(bus.address(), options);
  std::atomic<int> closedCalls{0};
  {
    ScreenCastPortal portal({}, [&] { ++closedCalls; });
    ScreenCastGrant grant = portal.start({}, std::stop_token{});

    ASSERT_EQ(grant.streams.size(), 1u);
    EXPECT_EQ(grant.streams[0].nodeID, 57u);
    EXPECT_EQ(grant.streams[0].position, (PointValue{1920, 0}));
    EXPECT_EQ(grant.streams[0].size, (SizeValue{2560, 1440}));
    EXPECT_EQ(grant.streams[0].sourceType, ScreenCastSourceType::monitor);
    EXPECT_EQ(grant.cursorMode, ScreenCastCursorMode::metadata);
    EXPECT_EQ(grant.version, 4u);
    EXPECT_FALSE(grant.restored);

    // The descriptor is the portal's own socket, not a copy of something else.
    ASSERT_TRUE(grant.pipeWireRemote);
    ASSERT_EQ(::write(grant.pipeWireRemote.get(), "p", 1), 1);
    char byte = 0;
    ASSERT_EQ(::read(fake.remotePeer(), &byte, 1), 1);
    EXPECT_EQ(byte, 'p');

    auto calls = fake.selectSourcesCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].types, 1u);
    EXPECT_FALSE(calls[0].multiple);
    EXPECT_EQ(calls[0].cursorMode, std::optional<std::uint32_t>(4));
    EXPECT_EQ(calls[0].persistMode, std::optional<std::uint32_t>(2));
    EXPECT_EQ(calls[0].restoreToken, std::nullopt);
    EXPECT_EQ(fake.parentWindows(), std::vector<std::string>{""});
    EXPECT_EQ(fake.dialogsShown(), 1);
    EXPECT_EQ(fake.openSessions(), 1);
  }
  // Closing our own session is no news to the owner.
  EXPECT_EQ(fake.sessionsClosedByClient(), 1);
  EXPECT_EQ(fake.openSessions(), 0);
  EXPECT_EQ(closedCalls.load(), 0);
}

TEST_F(ScreenCastPortalTest, AsksForMetadataThenEmbeddedPointerAndTheOfferedSourceType) {
  struct Case {
    std::uint32_t availableCursorModes;
    std::uint32_t availableSourceTypes;
    ScreenCastSourceType wanted;
    std::optional<std::uint32_t> cursorModeAsked;
    ScreenCastCursorMode granted;
  };
  const Case cases[] = {
      {1 | 2 | 4, 1 | 2, ScreenCastSourceType::window, 4, ScreenCastCursorMode::metadata},
      {1 | 2, 1, ScreenCastSourceType::monitor, 2, ScreenCastCursorMode::embedded},
      {1, 1, ScreenCastSourceType::monitor, std::nullopt, ScreenCastCursorMode::hidden},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.availableCursorModes);
    FakeScreenCastPortalOptions options;
    options.availableCursorModes = c.availableCursorModes;
    options.availableSourceTypes = c.availableSourceTypes;
    FakeScreenCastPortal fake(bus.address(), options);
    ScreenCastRequest request;
    request.sourceType = c.wanted;
    EXPECT_EQ(startOnce(request).cursorMode, c.granted);
    ASSERT_EQ(fake.selectSourcesCalls().size(), 1u);
    EXPECT_EQ(fake.selectSourcesCalls()[0].types, std::uint32_t(c.wanted));
    EXPECT_EQ(fake.selectSourcesCalls()[0].cursorMode, c.cursorModeAsked);
  }

  // A kind of source the desktop cannot share is refused before any session or dialog.
  FakeScreenCastPortalOptions monitorsOnly;
  monitorsOnly.availableSourceTypes = 1;
  FakeScreenCastPortal fake(bus.address(), monitorsOnly);
  ScreenCastRequest window;
  window.sourceType = ScreenCastSourceType::window;
  EXPECT_ERROR_CASE(startOnce(window), CaptureError, CaptureError::Case::sourceTypeUnavailable);
  EXPECT_EQ(fake.dialogsShown(), 0);
  EXPECT_EQ(fake.openSessions(), 0);
}

TEST_F(ScreenCastPortalTest, RefusalsAndFailuresCloseTheSessionAndKeepNoToken) {
  enum class Outcome { cancelled, failed, timedOut };
  struct Case {
    std::string method;
    FakePortalResponse response;
    Outcome outcome;
    int dialogs;
  };
  const Case cases[] = {
      {"Start", FakePortalResponse::cancelled, Outcome::cancelled, 1},
      {"Start", FakePortalResponse::failed, Outcome::failed, 1},
      {"SelectSources", FakePortalResponse::cancelled, Outcome::cancelled, 0},
      {"SelectSources", FakePortalResponse::failed, Outcome::failed, 0},
      {"CreateSession", FakePortalResponse::failed, Outcome::failed, 0},
      {"Start", FakePortalResponse::never, Outcome::timedOut, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + std::to_string(std::uint32_t(c.response)));
    FakeScreenCastPortal fake(bus.address());
    fake.setResponse(c.method, c.response);
    ScreenCastPortalOptions options;
    options.responseTimeout = 300ms;
    auto outcome = [&]() -> std::optional<Outcome> {
      try {
        startOnce({}, options);
      } catch (const CancelledError&) {
        return Outcome::cancelled;
      } catch (const CaptureError& error) {
        if (error.kind() == CaptureError::Case::portalFailed) return Outcome::failed;
        if (error.kind() == CaptureError::Case::portalTimedOut) return Outcome::timedOut;
        ADD_FAILURE() << error.what();
      }
      return std::nullopt;
    }();
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(fake.dialogsShown(), c.dialogs);
    EXPECT_EQ(fake.openSessions(), 0);
    EXPECT_FALSE(std::filesystem::exists(tokenFile()));
    // A dialog left waiting is dismissed.
    EXPECT_EQ(fake.requestsClosedByClient(), c.outcome == Outcome::timedOut ? 1 : 0);
  }
}

TEST_F(ScreenCastPortalTest, WithoutBusPortalOrInterfaceNamesWhatToInstall) {
  struct Case {
    std::string name;
    std::function<std::unique_ptr<FakeScreenCastPortal>()> portal;
    std::optional<std::string> busAddress;
    CaptureError::Case expected;
  };
  auto noInterface = [&] {
    FakeScreenCastPortalOptions options;
    options.screenCast = false;
    return std::make_unique<FakeScreenCastPortal>(bus.address(), options);
  };
  const Case cases[] = {
      {"no portal", [] { return nullptr; }, bus.address(), CaptureError::Case::portalUnavailable},
      {"no ScreenCast", noInterface, bus.address(), CaptureError::Case::portalUnavailable},
      {"no bus", [] { return nullptr; }, std::nullopt, CaptureError::Case::sessionBusUnavailable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto fake = c.portal();
    testing::ScopedEnvironmentVariable address("DBUS_SESSION_BUS_ADDRESS", c.busAddress);
    for (bool probe : {false, true}) {
      try {
        if (probe)
          probeScreenCastPortal();
        else
          startOnce();
        ADD_FAILURE() << "no error";
      } catch (const CaptureError& error) {
        EXPECT_EQ(error.kind(), c.expected) << error.what();
        if (c.expected == CaptureError::Case::portalUnavailable) {
          EXPECT_NE(std::string(error.what()).find("xdg-desktop-portal-gnome"), std::string::npos) << error.what();
          EXPECT_EQ(error.localizationKey(), "capture.error.portalUnavailable");
        }
      }
    }
  }
}

TEST_F(ScreenCastPortalTest, VersionThreeAsksEveryTimeAndKeepsNoToken) {
  FakeScreenCastPortalOptions options;
  options.version = 3;
  FakeScreenCastPortal fake(bus.address(), options);
  for (int run = 0; run < 2; ++run) EXPECT_FALSE(startOnce().restored);
  EXPECT_EQ(fake.dialogsShown(), 2);
  for (const auto& call : fake.selectSourcesCalls()) {
    EXPECT_EQ(call.persistMode, std::nullopt);
    EXPECT_EQ(call.restoreToken, std::nullopt);
  }
  EXPECT_TRUE(fake.tokensIssued().empty());
  EXPECT_FALSE(std::filesystem::exists(tokenFile()));
  EXPECT_FALSE(probeScreenCastPortal().restoreTokenStored);
}

TEST_F(ScreenCastPortalTest, VersionFourRestoresFromTheStoredTokenOnceAndReplacesIt) {
  FakeScreenCastPortal fake(bus.address());

  EXPECT_FALSE(startOnce().restored);
  ASSERT_EQ(fake.tokensIssued().size(), 1u);
  EXPECT_EQ(storedToken(), fake.tokensIssued()[0]);
  EXPECT_EQ(fake.dialogsShown(), 1);
  EXPECT_TRUE(probeScreenCastPortal().restoreTokenStored);

  // The second recording passes the token, so the desktop shows no dialog; the token is spent and
  // the new one stored.
  EXPECT_TRUE(startOnce().restored);
  EXPECT_EQ(fake.dialogsShown(), 1);
  EXPECT_EQ(fake.tokensRefused(), 0);
  ASSERT_EQ(fake.tokensIssued().size(), 2u);
  EXPECT_EQ(fake.selectSourcesCalls()[1].restoreToken, fake.tokensIssued()[0]);
  EXPECT_EQ(storedToken(), fake.tokensIssued()[1]);

  // Choosing the source again skips the token and stores the new choice's.
  ScreenCastRequest choose;
  choose.useStoredToken = false;
  EXPECT_FALSE(startOnce(choose).restored);
  EXPECT_EQ(fake.dialogsShown(), 2);
  EXPECT_EQ(fake.selectSourcesCalls()[2].restoreToken, std::nullopt);
  EXPECT_EQ(fake.selectSourcesCalls()[2].persistMode, std::optional<std::uint32_t>(2));
  ASSERT_EQ(fake.tokensIssued().size(), 3u);
  EXPECT_EQ(storedToken(), fake.tokensIssued()[2]);
  EXPECT_EQ(fake.tokensRefused(), 0);

  // What another program left in the file is not passed on unless it looks like a token.
  for (std::string planted : {std::string("bad\x01token"), std::string(5000, 'a'), std::string()}) {
    writeFileAtomically(tokenFile(), planted);
    startOnce();
    EXPECT_EQ(fake.selectSourcesCalls().back().restoreToken, std::nullopt);
    EXPECT_EQ(storedToken(), fake.tokensIssued().back());
  }
  EXPECT_EQ(fake.dialogsShown(), 5);
}

TEST_F(ScreenCastPortalTest, SessionEndedByTheDesktopOrThePortalReachesTheOwnerOnce) {
  for (bool portalLeaves : {false, true}) {
    SCOPED_TRACE(portalLeaves ? "the portal leaves the bus" : "stop sharing");
    auto fake = std::make_unique<FakeScreenCastPortal>(bus.address());
    std::atomic<int> closedCalls{0};
    ScreenCastPortal portal({}, [&] { ++closedCalls; });
    portal.start({}, std::stop_token{});
    EXPECT_EQ(closedCalls.load(), 0);
    if (portalLeaves) {
      fake.reset();
    } else {
      fake->closeSessions();
    }
    EXPECT_TRUE(eventually([&] { return closedCalls.load() == 1; }));
    portal.close();
    // A session the desktop ended is not closed again.
    if (fake) {
      EXPECT_EQ(fake->sessionsClosedByClient(), 0);
    }
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(closedCalls.load(), 1);
  }
}

TEST_F(ScreenCastPortalTest, StopRequestEndsTheWaitForTheDialogAtOnce) {
  FakeScreenCastPortal fake(bus.address());
  fake.setResponse("Start", FakePortalResponse::never);
  std::stop_source stop;
  auto started = std::async(std::launch::async, [&] {
    ScreenCastPortal portal;
    portal.start({}, stop.get_token());
  });
  ASSERT_TRUE(fake.waitForPendingRequests(1, 5s));
  auto requested = std::chrono::steady_clock::now();
  stop.request_stop();
  ASSERT_EQ(started.wait_for(2s), std::future_status::ready);
  EXPECT_LT(std::chrono::steady_clock::now() - requested, 500ms);
  EXPECT_THROW(started.get(), CancelledError);
  EXPECT_TRUE(eventually([&] { return fake.requestsClosedByClient() == 1 && fake.openSessions() == 0; }))
      << fake.requestsClosedByClient() << " " << fake.openSessions() << " " << fake.sessionsClosedByClient();
}

TEST_F(ScreenCastPortalTest, ProbeReadsTheOfferWithoutADialog) {
  FakeScreenCastPortalOptions options;
  options.availableSourceTypes = 1 | 2 | 8;  // a bit this program does not know is left out
  options.availableCursorModes = 1 | 4;
  FakeScreenCastPortal fake(bus.address(), options);
  Json probe = probeScreenCastPortal();
  EXPECT_EQ(probe, Json::parse(R"({"version": 4, "availableSourceTypes": ["monitor", "window"],
                                   "availableCursorModes": ["hidden", "metadata"], "restoreTokenStored": false})"));
  EXPECT_EQ(fake.dialogsShown(), 0);
  EXPECT_EQ(fake.openSessions(), 0);
}

TEST(ScreenCastPortalPaths, RequestAndSessionPathsFollowTheSenderAndToken) {
  EXPECT_EQ(screenCastRequestPath(":1.42", "vumo_1"), "/org/freedesktop/portal/desktop/request/1_42/vumo_1");
  EXPECT_EQ(screenCastSessionPath(":1.7", "s"), "/org/freedesktop/portal/desktop/session/1_7/s");
}

}  // namespace
}  // namespace vumo
