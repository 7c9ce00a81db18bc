// The one symbol the desktop application module shows.

#include "ui/application_module.h"

#include "ui/application.h"

extern "C" __attribute__((visibility("default"))) const vumo::ApplicationModule* vumoApplicationModule() {
  static const vumo::ApplicationModule module{vumo::ApplicationModule::currentInterfaceVersion,
                                              &vumo::Application::run};
  return &module;
}
