#include "agent/agent_exchange.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using Case = EditPlanValidationError::Case;
using vumo::testing::ScopedDataHome;
using vumo::testing::TemporaryDirectory;

void writeBytes(const fs::path& path, std::size_t count, char fill = ' ') {
  std::ofstream out(path, std::ios::binary);
  out << std::string(count, fill);
}

class AgentExchangeFolder : public ::testing::Test {
 protected:
  ScopedDataHome home;
  Uuid jobID = Uuid::random();
};

TEST_F(AgentExchangeFolder, RootLivesInTheVumoSupportFolder) {
  EXPECT_EQ(exchangeRootDirectory(), home.path() / "Vumo" / "AgentExchange");
}

TEST_F(AgentExchangeFolder, CreatesRootAndJobFolderOnceAndRefusesToReuseIt) {
  fs::path folder = createEditPlanDirectory(jobID);
  EXPECT_EQ(folder, exchangeRootDirectory() / jobID.string());
  EXPECT_TRUE(fs::is_directory(folder));
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { createEditPlanDirectory(jobID); }),
            Case::invalidDocument);
  // A second job goes beside the first.
  EXPECT_TRUE(fs::is_directory(createEditPlanDirectory(Uuid::random())));
}

TEST_F(AgentExchangeFolder, SymbolicLinkAsRootIsRefusedForCreatingAndReading) {
  fs::path folder = createEditPlanDirectory(jobID);
  writeExchange(Json{{"a", 1}}, folder / "job.json");
  TemporaryDirectory elsewhere;
  fs::rename(exchangeRootDirectory(), elsewhere.path() / "real");
  fs::create_directory_symlink(elsewhere.path() / "real", exchangeRootDirectory());

  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { createEditPlanDirectory(Uuid::random()); }),
            Case::invalidDocument);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanJobData(folder / "job.json"); }),
            Case::invalidDocument);
}

TEST_F(AgentExchangeFolder, SymbolicLinkAsJobFolderIsRefused) {
  TemporaryDirectory elsewhere;
  writeBytes(elsewhere.path() / "edit-plan.json", 10);
  createEditPlanDirectory(Uuid::random());  // makes the root
  fs::path folder = exchangeRootDirectory() / jobID.string();
  fs::create_directory_symlink(elsewhere.path(), folder);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "edit-plan.json"); }),
            Case::invalidDocument);
  // Nor may a job be created through it.
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { createEditPlanDirectory(jobID); }),
            Case::invalidDocument);
}

TEST_F(AgentExchangeFolder, OnlyRegularFilesWithOneLinkAreRead) {
  fs::path folder = createEditPlanDirectory(jobID);
  TemporaryDirectory elsewhere;
  fs::path secret = elsewhere.path() / "secret";
  writeBytes(secret, 10, 'x');

  fs::create_symlink(secret, folder / "edit-plan.json");
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "edit-plan.json"); }),
            Case::invalidDocument);

  fs::path inside = folder / "inside.json";
  writeBytes(inside, 10);
  fs::create_hard_link(inside, folder / "twice.json");
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(inside); }), Case::invalidDocument);

  fs::create_directory(folder / "folder.json");
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "folder.json"); }),
            Case::invalidDocument);

  // A FIFO must neither be read nor make the reader wait for a writer.
  ASSERT_EQ(::mkfifo((folder / "pipe.json").c_str(), 0600), 0);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "pipe.json"); }),
            Case::invalidDocument);

  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "missing.json"); }),
            Case::invalidDocument);
}

TEST_F(AgentExchangeFolder, FileMustLieInAFolderDirectlyUnderTheRoot) {
  fs::path folder = createEditPlanDirectory(jobID);
  writeBytes(folder / "edit-plan.json", 10);
  EXPECT_EQ(readEditPlanData(folder / "edit-plan.json"), std::string(10, ' '));
  // The same file named through a detour that normalises to it is fine.
  EXPECT_EQ(readEditPlanData(folder / ".." / jobID.string() / "edit-plan.json").size(), 10u);

  fs::create_directory(folder / "nested");
  writeBytes(folder / "nested" / "edit-plan.json", 10);
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "nested" / "edit-plan.json"); }),
      Case::invalidDocument);

  writeBytes(exchangeRootDirectory() / "edit-plan.json", 10);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { readEditPlanData(exchangeRootDirectory() / "edit-plan.json"); }),
            Case::invalidDocument);

  TemporaryDirectory elsewhere;
  fs::create_directory(elsewhere.path() / "job");
  writeBytes(elsewhere.path() / "job" / "edit-plan.json", 10);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { readEditPlanData(elsewhere.path() / "job" / "edit-plan.json"); }),
            Case::invalidDocument);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { readEditPlanData(folder / ".." / ".." / "x" / "edit-plan.json"); }),
            Case::invalidDocument);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "."); }),
            Case::invalidDocument);
}

TEST_F(AgentExchangeFolder, NothingIsReadBeforeTheRootExists) {
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { readEditPlanData(exchangeRootDirectory() / jobID.string() / "edit-plan.json"); }),
            Case::invalidDocument);
}

TEST_F(AgentExchangeFolder, SizeLimitsAreInclusiveAndSayWhichDocumentIsTooLarge) {
  fs::path folder = createEditPlanDirectory(jobID);
  writeBytes(folder / "edit-plan.json", 1'048'576);
  EXPECT_EQ(readEditPlanData(folder / "edit-plan.json").size(), 1'048'576u);
  writeBytes(folder / "edit-plan.json", 1'048'577);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanData(folder / "edit-plan.json"); }),
            Case::documentTooLarge);

  writeBytes(folder / "job.json", 65'536);
  EXPECT_EQ(readEditPlanJobData(folder / "job.json").size(), 65'536u);
  writeBytes(folder / "job.json", 65'537);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { readEditPlanJobData(folder / "job.json"); }),
            Case::invalidDocument);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { readExchangeData(folder / "job.json", exchangeJobMaximumBytes, Case::documentTooLarge); }),
            Case::documentTooLarge);
}

TEST_F(AgentExchangeFolder, WrittenDocumentsUseTheDocumentEncoderAndReadBack) {
  fs::path folder = createEditPlanDirectory(jobID);
  Json document{{"b", 1}, {"a", "x/y"}};
  writeExchange(document, folder / "job.json");
  std::string bytes = readEditPlanJobData(folder / "job.json");
  EXPECT_EQ(bytes, encodeDocument(document));
  EXPECT_EQ(parseJson(bytes), document);
}

}  // namespace
}  // namespace vumo
