#include "cli/system_capabilities.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

#include "shared/files.h"

namespace vumo {

namespace {

std::string readSmallFile(const char* path) {
  std::ifstream in(path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::string trimmed(std::string text) {
  auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return {};
  auto end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// Mesa reports driver-loading trouble on standard error, and a command's standard error must stay
// empty on success. The probe runs with it pointed at /dev/null.
class SilencedStandardError {
 public:
  SilencedStandardError() : saved_(::dup(STDERR_FILENO)) {
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
      ::dup2(null, STDERR_FILENO);
      ::close(null);
    }
  }
  ~SilencedStandardError() {
    if (saved_ >= 0) {
      ::dup2(saved_, STDERR_FILENO);
      ::close(saved_);
    }
  }
  SilencedStandardError(const SilencedStandardError&) = delete;
  SilencedStandardError& operator=(const SilencedStandardError&) = delete;

 private:
  int saved_;
};

class EGLDisplayHandle {
 public:
  explicit EGLDisplayHandle(EGLDisplay display) : display_(display) {}
  ~EGLDisplayHandle() {
    if (display_ != EGL_NO_DISPLAY) {
      eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
      eglTerminate(display_);
    }
  }
  EGLDisplayHandle(const EGLDisplayHandle&) = delete;
  EGLDisplayHandle& operator=(const EGLDisplayHandle&) = delete;
  EGLDisplay get() const { return display_; }

 private:
  EGLDisplay display_;
};

bool tryDisplay(EGLDisplay raw) {
  if (raw == EGL_NO_DISPLAY) return false;
  EGLDisplayHandle display(raw);
  EGLint major = 0, minor = 0;
  if (!eglInitialize(display.get(), &major, &minor)) return false;
  if (!eglBindAPI(EGL_OPENGL_ES_API)) return false;
  // Surfaceless displays offer no window configs, so ask for an off-screen one, or none at all
  // where the display can make a context without a config.
  const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT,
                                     EGL_NONE};
  EGLConfig config = nullptr;
  EGLint count = 0;
  if (!eglChooseConfig(display.get(), configAttributes, &config, 1, &count) || count < 1) {
    const char* extensions = eglQueryString(display.get(), EGL_EXTENSIONS);
    if (extensions == nullptr ||
        std::string_view(extensions).find("EGL_KHR_no_config_context") == std::string_view::npos)
      return false;
    config = EGL_NO_CONFIG_KHR;
  }
  const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_NONE};
  EGLContext context = eglCreateContext(display.get(), config, EGL_NO_CONTEXT, contextAttributes);
  if (context == EGL_NO_CONTEXT) return false;
  bool current = eglMakeCurrent(display.get(), EGL_NO_SURFACE, EGL_NO_SURFACE, context);
  eglMakeCurrent(display.get(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  eglDestroyContext(display.get(), context);
  return current;
}

}  // namespace

bool SystemCapabilityInspector::canCreateOpenGLES3Context() {
  SilencedStandardError silence;
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (getPlatformDisplay != nullptr &&
      tryDisplay(getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr)))
    return true;
  return tryDisplay(eglGetDisplay(EGL_DEFAULT_DISPLAY));
}

std::string SystemCapabilityInspector::chipName(const std::string& cpuinfo) {
  std::istringstream lines(cpuinfo);
  std::string line;
  while (std::getline(lines, line)) {
    auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string key = trimmed(line.substr(0, colon));
    // x86 names the processor "model name"; many ARM kernels only give "Hardware" or "Processor".
    if (key == "model name" || key == "Hardware" || key == "Processor") {
      std::string value = trimmed(line.substr(colon + 1));
      if (!value.empty()) return value;
    }
  }
  return "unknown";
}

std::string SystemCapabilityInspector::operatingSystemVersion(const std::string& osRelease,
                                                              const std::string& kernelRelease) {
  std::string pretty;
  std::istringstream lines(osRelease);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
    pretty = trimmed(line.substr(12));
    if (pretty.size() >= 2 && (pretty.front() == '"' || pretty.front() == '\'') && pretty.back() == pretty.front())
      pretty = pretty.substr(1, pretty.size() - 2);
  }
  if (pretty.empty()) pretty = "Linux";
  if (kernelRelease.empty()) return pretty;
  return pretty + ", Linux " + kernelRelease;
}

CLISystemInfoResponse SystemCapabilityInspector::inspect() {
  CLISystemInfoResponse response;
  struct utsname names {};
  std::string kernelRelease;
  if (::uname(&names) == 0) {
    response.architecture = names.machine[0] != 0 ? names.machine : "unknown";
    kernelRelease = names.release;
  } else {
    response.architecture = "unknown";
  }
  response.chip = chipName(readSmallFile("/proc/cpuinfo"));
  long cores = ::sysconf(_SC_NPROCESSORS_CONF);
  response.logicalCoreCount = cores > 0 ? cores : 0;
  long pages = ::sysconf(_SC_PHYS_PAGES);
  long pageSize = ::sysconf(_SC_PAGESIZE);
  response.memoryBytes =
      pages > 0 && pageSize > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize) : 0;
  std::string osRelease = readSmallFile("/etc/os-release");
  if (osRelease.empty()) osRelease = readSmallFile("/usr/lib/os-release");
  response.operatingSystemVersion = operatingSystemVersion(osRelease, kernelRelease);
  response.supportsMetal = canCreateOpenGLES3Context();
  const char* home = std::getenv("HOME");
  struct statvfs fs {};
  if (home != nullptr && ::statvfs(home, &fs) == 0)
    response.availableDiskBytes = static_cast<std::int64_t>(fs.f_bavail) * static_cast<std::int64_t>(fs.f_frsize);
  response.privacyNote =
      "不包含序列号、硬件UUID、用户名或文件列表；安装工具或下载模型前必须展示具体方案并获得用户明确确认。";
  return response;
}

}  // namespace vumo
