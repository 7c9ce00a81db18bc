#pragma once

// A test suite that shares one generated sample recording (see tools/sample-project), made once in
// a data folder of the suite's own: generating it takes ffmpeg a moment, and the suite's tests only
// read it or add beside it.

#include <gtest/gtest.h>

#include <string>

#include "project/project_store.h"
#include "sample_project.h"
#include "support/test_support.h"

namespace vumo::testing {

class SampleProjectSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new ScopedDataHome();
    ProjectStore store;
    id_ = store.readManifest(makeSampleProject(store)).id.string();
  }
  static void TearDownTestSuite() {
    delete home_;
    home_ = nullptr;
  }

  static inline ScopedDataHome* home_ = nullptr;
  static inline std::string id_;
};

}  // namespace vumo::testing
