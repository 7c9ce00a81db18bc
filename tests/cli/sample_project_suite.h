#pragma once

// A test suite that shares one generated sample recording (see tools/sample-project), made once in
// a data folder of the suite's own: generating it takes ffmpeg a moment, and the suite's tests only
// read it or add beside it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "project/project_store.h"
#include "sample_project.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo::testing {

class SampleProjectSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new ScopedDataHome();
    cache_ = new TemporaryDirectory();
    ProjectStore store;
    id_ = store.readManifest(makeSampleProject(store)).id.string();
  }
  static void TearDownTestSuite() {
    delete cache_;
    cache_ = nullptr;
    delete home_;
    home_ = nullptr;
  }

  // The built program, with Mesa's shader cache and fontconfig's cache in a folder of the suite's
  // own.
  static ProcessResult vumo(const std::vector<std::string>& arguments) {
    return runVumo(arguments, {{"XDG_CACHE_HOME", cache_->path().string()}});
  }

  // Previews an edit (`arguments` after `vumo`) and commits it with the words the preview returned.
  static void commitPreviewed(const std::vector<std::string>& arguments) {
    auto preview = vumo(arguments);
    ASSERT_EQ(preview.status, 0) << preview.standardError;
    std::vector<std::string> confirm = {"cli"};
    const Json answer = Json::parse(preview.standardOutput);
    for (const auto& word : answer["confirmationArguments"]) confirm.push_back(word);
    auto committed = vumo(confirm);
    ASSERT_EQ(committed.status, 0) << committed.standardError;
  }

  static inline ScopedDataHome* home_ = nullptr;
  static inline TemporaryDirectory* cache_ = nullptr;
  static inline std::string id_;
};

}  // namespace vumo::testing
