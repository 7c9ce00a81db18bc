// Makes a finished sample project in the projects folder ($XDG_DATA_HOME/Vumo/Projects) and prints
// its id. Used by the demo; a real recording takes its place on a machine with a screen.

#include <cstdio>
#include <exception>

#include "sample_project.h"

int main() {
  try {
    vumo::ProjectStore store;
    vumo::ProjectPackage package = makeSampleProject(store);
    std::printf("%s\n", store.readManifest(package).id.string().c_str());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vumo-sample-project: %s\n", error.what());
    return 1;
  }
}
