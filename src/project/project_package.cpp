#include "project/project_package.h"

#include <string>

namespace vumo {

std::filesystem::path ProjectPackage::preSchemaTimelineBackupPath(int schemaVersion) const {
  return editsDirectory() / ("timeline.pre-schema" + std::to_string(schemaVersion) + ".json");
}

}  // namespace vumo
