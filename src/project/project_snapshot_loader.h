#pragma once

#include <stop_token>

#include "project/project_package.h"
#include "project/project_snapshot.h"

namespace vumo {

// Reads a whole project into a ProjectSnapshot: manifest, chunks, cursor images, the two edit
// documents and the canvas background. Each edit document is read once, and the snapshot carries
// the digest of the very bytes it decoded, so an answer built from it never pairs one version's
// content with another version's digest. Never writes.
class ProjectSnapshotLoader {
 public:
  // `stop` is checked between chunk files and before each edit document is decoded.
  explicit ProjectSnapshotLoader(std::stop_token stop = {}) : stop_(std::move(stop)) {}

  // Any part that cannot be read or does not decode (or validate) fails the load.
  ProjectSnapshot load(const ProjectPackage& package) const;

 private:
  std::stop_token stop_;
};

}  // namespace vumo
