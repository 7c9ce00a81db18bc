#include "capture/capture_error.h"

namespace vumo {

namespace {

using Case = CaptureError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::displayUnavailable, "displayUnavailable", "capture.error.noDisplay",
     "Unable to connect to the X display {}. Recording needs an X11 session (check DISPLAY).", "capture",
     ErrorKind::failure},
    {Case::waylandSession, "waylandSession", "capture.error.wayland",
     "This is a Wayland session: X11 capture cannot see the screen and would record black. Log in to an X11 "
     "session to record.",
     "capture", ErrorKind::failure},
    {Case::extensionMissing, "extensionMissing", "capture.error.extensionMissing",
     "The X server lacks the {} extension that recording needs.", "capture", ErrorKind::failure},
    {Case::sourceNotFound, "sourceNotFound", "capture.error.sourceNotFound", "The capture source was not found: {}",
     "capture", ErrorKind::failure},
    {Case::areaOutsideDisplay, "areaOutsideDisplay", "capture.error.areaOutsideDisplay",
     "The recording area must be a non-empty rectangle inside the display: {}", "invalid_arguments",
     ErrorKind::invalidArguments},
    {Case::windowGone, "windowGone", "capture.error.windowGone", "The recorded window was closed.", "capture",
     ErrorKind::failure},
    {Case::screenCaptureFailed, "screenCaptureFailed", "capture.error.screenCapture", "Screen capture failed: {}",
     "capture", ErrorKind::failure},
    {Case::audioServerUnavailable, "audioServerUnavailable", "capture.error.audioServerUnavailable",
     "PulseAudio is not available: {}", "capture", ErrorKind::failure},
    {Case::audioSourceMissing, "audioSourceMissing", "capture.error.audioSourceMissing",
     "The audio source was not found: {}", "capture", ErrorKind::failure},
    {Case::audioCaptureFailed, "audioCaptureFailed", "capture.error.audioCapture", "Audio capture failed: {}",
     "capture", ErrorKind::failure},
    {Case::sessionBusUnavailable, "sessionBusUnavailable", "capture.error.sessionBusUnavailable",
     "Unable to reach the D-Bus session bus, through which the screen-cast portal is asked: {}", "capture",
     ErrorKind::failure},
    {Case::portalUnavailable, "portalUnavailable", "capture.error.portalUnavailable",
     "No screen-cast portal answers on the session bus ({}). Install xdg-desktop-portal and the portal backend of "
     "this desktop: xdg-desktop-portal-gnome, xdg-desktop-portal-kde or xdg-desktop-portal-wlr.",
     "capture", ErrorKind::failure},
    {Case::portalFailed, "portalFailed", "capture.error.portalFailed", "The screen-cast portal failed: {}", "capture",
     ErrorKind::failure},
    {Case::portalTimedOut, "portalTimedOut", "capture.error.portalTimedOut",
     "The screen-cast portal gave no answer in time: {}", "capture", ErrorKind::failure},
    {Case::sourceTypeUnavailable, "sourceTypeUnavailable", "capture.error.sourceTypeUnavailable",
     "The screen-cast portal of this desktop cannot share this kind of source: {}", "capture", ErrorKind::failure},
};
static_assert(inCaseOrder(errorCases));

}  // namespace

const ErrorCatalogue<Case>& CaptureError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CaptureError", "RecordingErrors", errorCases};
  return catalogue;
}

}  // namespace vumo
