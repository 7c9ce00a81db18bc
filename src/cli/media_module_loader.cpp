#include "cli/media_module_loader.h"

#include <dlfcn.h>

#include <mutex>

#include "cli/cli_errors.h"
#include "shared/resources.h"

namespace vumo {

const MediaModule& MediaModuleLoader::loadFrom(const std::filesystem::path& file) {
  // Never closed: the engine's code and the objects it made live as long as the process.
  void* handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* reason = ::dlerror();
    throw MediaModuleError::unavailable(reason != nullptr ? reason : file.string());
  }
  auto entry = reinterpret_cast<MediaModuleEntryPoint>(::dlsym(handle, MediaModule::entryPointName));
  if (entry == nullptr) throw MediaModuleError::unavailable(file.string() + " has no entry point");
  const MediaModule* module = entry();
  if (module == nullptr || module->interfaceVersion != MediaModule::currentInterfaceVersion ||
      module->makeWaveformService == nullptr || module->exportCaptionAudio == nullptr ||
      module->makeStillRenderer == nullptr || module->makeExporter == nullptr ||
      module->makeRecordingMediaWriter == nullptr || module->listVideoDevices == nullptr ||
      module->makeVideoDeviceStream == nullptr || module->probeRecordingMedia == nullptr)
    throw MediaModuleError::unavailable(file.string() + " was built for another version of Vumo");
  return *module;
}

const MediaModule& MediaModuleLoader::load() {
  static std::mutex mutex;
  static const MediaModule* loaded = nullptr;
  std::lock_guard lock(mutex);
  if (loaded == nullptr) {
    auto folder = ResourceLocator::moduleDirectory();
    if (!folder) throw MediaModuleError::unavailable("no lib/vumo folder beside the program");
    loaded = &loadFrom(*folder / MediaModule::fileName);
  }
  return *loaded;
}

}  // namespace vumo
