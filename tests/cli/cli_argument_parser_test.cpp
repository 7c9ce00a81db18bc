#include "cli/cli_argument_parser.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "cli/cli_errors.h"
#include "cli/output_destination.h"
#include "support/test_support.h"

namespace vumo {
namespace {

std::vector<std::string> words(std::string_view line) {
  std::vector<std::string> out;
  std::string current;
  bool quoted = false, any = false;
  for (char c : line) {
    if (c == '\'') {
      quoted = !quoted;
      any = true;
    } else if (c == ' ' && !quoted) {
      if (any) out.push_back(current);
      current.clear();
      any = false;
    } else {
      current += c;
      any = true;
    }
  }
  if (any) out.push_back(current);
  return out;
}

struct FailureCase {
  const char* line;
  const char* message;
};

// Test names from the command line itself, so a failure names the words that broke.
std::string caseName(const ::testing::TestParamInfo<FailureCase>& info) {
  std::string name;
  for (const char* c = info.param.line; *c != 0; ++c) name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
  return name + "_" + std::to_string(info.index);
}

class ParserFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(ParserFailureTest, ReportsTheFirstErrorInGrammarOrder) {
  testing::ScopedDataHome home;
  const auto& c = GetParam();
  try {
    CLIArgumentParser::parse(words(c.line));
    FAIL() << c.line << " parsed";
  } catch (const CLIArgumentError& e) {
    EXPECT_STREQ(e.what(), c.message) << c.line;
    EXPECT_EQ(e.classification().code, "invalid_arguments");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, ParserFailureTest,
    ::testing::Values(
        FailureCase{"nonsense", "未知命令：nonsense"}, FailureCase{"Describe abc", "未知命令：Describe"},
        FailureCase{"system-info extra", "无法识别参数：extra"}, FailureCase{"list --all", "无法识别参数：--all"},
        FailureCase{"describe", "缺少参数：id"}, FailureCase{"describe --x", "缺少参数：id"},
        FailureCase{"describe ''", "缺少参数：id"}, FailureCase{"describe abc def", "无法识别参数：def"},
        FailureCase{"history abc def", "无法识别参数：def"}, FailureCase{"help nonsense", "参数无效：help topic"},
        FailureCase{"help editPlan", "参数无效：help topic"},
        FailureCase{"help workflow output", "无法识别参数：output"},
        // ranges
        FailureCase{"cut abc --range 5,1", "参数无效：--range"},
        FailureCase{"cut abc --range 0,604800001", "参数无效：--range"},
        FailureCase{"cut abc --range 1,2,3", "参数无效：--range"},
        FailureCase{"cut abc --range ,5", "参数无效：--range"},
        FailureCase{"cut abc --range -1,5", "参数无效：--range"},
        FailureCase{"cut abc --range a,b", "参数无效：--range"},
        FailureCase{"cut abc --range 3,3", "参数无效：--range"},
        FailureCase{"cut abc --range 1.5,3", "参数无效：--range"}, FailureCase{"cut abc", "缺少参数：--range"},
        FailureCase{"cut abc --range", "缺少参数：--range"}, FailureCase{"cut --range 1,2", "缺少参数：id"},
        FailureCase{"cut abc --range 1,2 --range 3,4", "参数无效：--range"},
        FailureCase{"cut abc --range 1,2 stray", "无法识别参数：stray"},
        FailureCase{"cut abc --range 1,2 --level 2", "无法识别参数：--level"},
        FailureCase{"cut abc --range 1,2 --apply", "参数无效：--apply必须与--expect同时提供"},
        FailureCase{"cut abc --range 1,2 --expect d", "参数无效：--apply必须与--expect同时提供"},
        FailureCase{"cut abc --range 1,2 --source yes", "参数无效：--source"},
        FailureCase{"cut abc --range 1,2 --apply yes --expect d", "参数无效：--apply"},
        // speed
        FailureCase{"speed-set abc --range 1,2 --rate 0.495", "参数无效：--rate"},
        FailureCase{"speed-set abc --range 1,2 --rate 4.01", "参数无效：--rate"},
        FailureCase{"speed-set abc --range 1,2 --rate 1.005", "参数无效：--rate"},
        FailureCase{"speed-set abc --range 1,2 --rate nan", "参数无效：--rate"},
        FailureCase{"speed-set abc --range 2,1", "缺少参数：--rate"},
        FailureCase{"speed-set abc --rate 2 --range 2,1", "参数无效：--range"},
        // zoom
        FailureCase{"zoom-add abc --range 1,2 --at 0.5", "参数无效：--at"},
        FailureCase{"zoom-add abc --range 1,2 --at 1.5,0.5", "参数无效：--at"},
        FailureCase{"zoom-add abc --range 2,1 --at 1.5,0.5", "参数无效：--at"},
        FailureCase{"zoom-add abc --range 1,2 --level big", "参数无效：--level"},
        FailureCase{"zoom-add abc --range 1,2 --level inf", "参数无效：--level"},
        FailureCase{"zoom-rm abc", "参数无效：--index/--all"},
        FailureCase{"zoom-rm abc --index 1 --all", "参数无效：--index/--all"},
        FailureCase{"zoom-rm abc --index -1", "参数无效：--index"},
        FailureCase{"zoom-rm abc --all now", "参数无效：--all"},
        FailureCase{"zoom-regen abc --range 1,2", "无法识别参数：--range"},
        FailureCase{"restore abc", "缺少参数：--index"}, FailureCase{"restore abc --index x", "参数无效：--index"},
        // set
        FailureCase{"set", "缺少参数：id"}, FailureCase{"set abc", "缺少参数：key=value"},
        FailureCase{"set abc a=1 a=2", "参数无效：a"}, FailureCase{"set abc novalue", "参数无效：novalue"},
        FailureCase{"set abc a=1 --expect", "缺少参数：--expect"},
        FailureCase{"set abc a=1 --apply", "参数无效：--apply必须与--expect同时提供"},
        FailureCase{"set abc a=1 --apply --apply --expect d", "参数无效：--apply"},
        // "--expect" takes the next word whatever it is, which then has no value in the bag.
        FailureCase{"set abc a=1 --expect --apply", "参数无效：--apply必须与--expect同时提供"},
        // idle
        FailureCase{"idle abc --silence-db 1", "参数无效：--silence-db"},
        FailureCase{"idle abc --min-removal-ms 16", "参数无效：--min-removal-ms"},
        FailureCase{"idle abc --min-ms 0", "参数无效：--min-ms"},
        FailureCase{"idle abc --min-ms ''", "参数无效：--min-ms"},
        FailureCase{"idle abc --min-ms 99999999999999999999", "参数无效：--min-ms"},
        FailureCase{"idle abc --track camera", "参数无效：--track"},
        FailureCase{"idle abc --silence-db ' -42'", "参数无效：--silence-db"},
        // captions and plans
        FailureCase{"captions-prepare abc --track auto", "参数无效：--track"},
        FailureCase{"captions-generate abc --track screen", "参数无效：--track"},
        FailureCase{"captions-import abc", "缺少参数：--job"},
        FailureCase{"captions-import abc --job nope", "参数无效：--job"},
        FailureCase{"captions-import abc --job 0F8FAD5B-D9CB-469F-A165-70867728950E --apply",
                    "参数无效：--apply/--expect-timeline/--expect-captions"},
        FailureCase{"captions-import abc --job 0F8FAD5B-D9CB-469F-A165-70867728950E --align-audio yes",
                    "参数无效：--align-audio"},
        FailureCase{"edit-plan-preview abc --job 0F8FAD5B-D9CB-469F-A165-70867728950E --apply --expect-timeline a "
                    "--expect-captions b",
                    "参数无效：--apply/--expect-timeline/--expect-captions/--expect-plan"},
        // frame
        FailureCase{"frame abc --out a.png", "缺少参数：--ms"}, FailureCase{"frame abc --ms 0", "缺少参数：--out"},
        FailureCase{"frame abc --ms 0 --out a/b.png", "参数无效：--out"},
        FailureCase{"frame abc --ms 0 --out ..", "参数无效：--out"},
        FailureCase{"frame abc --ms 0 --out .", "参数无效：--out"},
        FailureCase{"frame abc --ms -1 --out a.png", "参数无效：--ms"},
        FailureCase{"frame abc --ms 0 --out a.png --width 1", "参数无效：--width"},
        FailureCase{"frame abc --ms 0 --out a.png --replace yes", "参数无效：--replace"},
        // a value that starts with "--" is never a value
        FailureCase{"cut abc --range --source", "缺少参数：--range"}),
    caseName);

TEST(ParserTest, EmptyArgumentsMeanHelp) {
  EXPECT_EQ(CLIArgumentParser::parse({}), CLICommand{CLICommand::Help{}});
  EXPECT_EQ(CLIArgumentParser::parse({"help", "edit-plan"}), CLICommand{CLICommand::Help{CLIAgentHelpTopic::editPlan}});
}

CLIMutationRequest mutationOf(const std::string& line) {
  testing::ScopedDataHome home;
  auto command = CLIArgumentParser::parse(words(line));
  return std::get<CLICommand::Mutate>(command.value).request;
}

TEST(ParserTest, MutationsCarryRangeDomainAndCommit) {
  auto preview = mutationOf("cut abc --range 0,604800000 --expect");
  EXPECT_FALSE(preview.appliesChanges);
  EXPECT_FALSE(preview.expectedDigest);
  EXPECT_EQ(std::get<CLIMutation::Cut>(preview.mutation.value),
            (CLIMutation::Cut{{0, 604'800'000}, CLITimeDomain::sequence}));

  auto commit = mutationOf("cut abc --source --range 1,2 --apply --expect d1");
  EXPECT_TRUE(commit.appliesChanges);
  EXPECT_EQ(commit.expectedDigest, "d1");
  EXPECT_EQ(std::get<CLIMutation::Cut>(commit.mutation.value).domain, CLITimeDomain::source);

  auto speed = std::get<CLIMutation::Speed>(mutationOf("speed-set abc --range 1,2 --rate 2.0").mutation.value);
  EXPECT_EQ(speed.rate.permille, 2000);
  EXPECT_EQ(
      std::get<CLIMutation::Speed>(mutationOf("speed-set abc --range 1,2 --rate 0.5").mutation.value).rate.permille,
      500);
  EXPECT_EQ(
      std::get<CLIMutation::Speed>(mutationOf("speed-set abc --range 1,2 --rate 1.01").mutation.value).rate.permille,
      1010);

  auto zoom = std::get<CLIMutation::ZoomAdd>(mutationOf("zoom-add abc --range 1,2 --at 0.25,1 --level").mutation.value);
  EXPECT_EQ(zoom.level, 1.8);
  EXPECT_EQ(zoom.focus, (PointValue{0.25, 1}));
  EXPECT_FALSE(std::get<CLIMutation::ZoomAdd>(mutationOf("zoom-add abc --range 1,2 --at").mutation.value).focus);
  EXPECT_EQ(std::get<CLIMutation::ZoomAdd>(mutationOf("zoom-add abc --range 1,2 --level 9").mutation.value).level, 9);

  EXPECT_EQ(std::get<CLIMutation::ZoomRemove>(mutationOf("zoom-rm abc --all").mutation.value),
            (CLIMutation::ZoomRemove{std::nullopt, true}));
  EXPECT_EQ(std::get<CLIMutation::RestoreHistory>(mutationOf("restore abc --index 3").mutation.value).index, 3);
}

TEST(ParserTest, SetTakesPositionalSettingsAndItsOwnCommitWords) {
  auto request = mutationOf("set --weird cursor.scale=1.5=2 =x --expect d --apply");
  EXPECT_EQ(request.projectID, "--weird");
  EXPECT_TRUE(request.appliesChanges);
  EXPECT_EQ(request.expectedDigest, "d");
  auto settings = std::get<CLIMutation::Settings>(request.mutation.value).values;
  EXPECT_EQ(settings, (std::map<std::string, std::string>{{"cursor.scale", "1.5=2"}, {"", "x"}}));
}

TEST(ParserTest, IdleReadsNegativeNumbersAsValuesAndAppliesDefaults) {
  testing::ScopedDataHome home;
  auto idle = std::get<CLICommand::Idle>(CLIArgumentParser::parse(words("idle abc --silence-db -42.5 --track")).value);
  EXPECT_EQ(idle.silenceDecibels, -42.5);
  EXPECT_EQ(idle.minimumMilliseconds, 1500);
  EXPECT_EQ(idle.keepTailMilliseconds, 500);
  EXPECT_EQ(idle.minimumRemovalMilliseconds, 150);
  EXPECT_FALSE(idle.track);
  auto tuned = std::get<CLICommand::Idle>(
      CLIArgumentParser::parse(words("idle abc --track system-audio --min-ms +700 --min-removal-ms 17")).value);
  EXPECT_EQ(tuned.track, MediaTrackKind::systemAudio);
  EXPECT_EQ(tuned.minimumMilliseconds, 700);
  EXPECT_EQ(tuned.minimumRemovalMilliseconds, 17);
}

TEST(ParserTest, CaptionAndPlanRequests) {
  testing::ScopedDataHome home;
  const std::string job = "0f8fad5b-d9cb-469f-a165-70867728950e";
  auto import = std::get<CLICommand::CaptionsImport>(
                    CLIArgumentParser::parse(words("captions-import abc --job " + job +
                                                   " --align-audio --apply --expect-timeline t --expect-captions c"))
                        .value)
                    .request;
  EXPECT_EQ(import.jobID.string(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
  EXPECT_TRUE(import.alignsAudio && import.appliesChanges);
  EXPECT_EQ(import.expectedCaptionsDigest, "c");
  auto plan =
      std::get<CLICommand::EditPlan>(CLIArgumentParser::parse(words("edit-plan-preview abc --job " + job)).value);
  EXPECT_FALSE(plan.request.appliesChanges);
  EXPECT_EQ(std::get<CLICommand::CaptionsPrepare>(CLIArgumentParser::parse(words("captions-prepare abc --track")).value)
                .track,
            MediaTrackKind::microphone);
  EXPECT_EQ(
      std::get<CLICommand::CaptionsGenerate>(CLIArgumentParser::parse(words("captions-generate abc")).value).track,
      CaptionTrackSelection::automatic);
}

TEST(ParserTest, BareOutputNamesLandInTheExportsFolderWhichIsNotCreatedYet) {
  testing::ScopedDataHome home;
  // A data home that does not exist yet: parsing must not create it either.
  ::setenv("XDG_DATA_HOME", (home.path() / "data").c_str(), 1);
  auto frame = std::get<CLICommand::Frame>(CLIArgumentParser::parse(words("frame abc --ms 5000 --out shot.png")).value);
  EXPECT_EQ(frame.outputPath, "shot.png");
  EXPECT_EQ(resolvedOutputPath(frame.outputPath), home.path() / "data" / "Vumo" / "Exports" / "shot.png");
  EXPECT_EQ(frame.width, 1280);
  EXPECT_FALSE(std::filesystem::exists(home.path() / "data"));
  auto absolute = std::get<CLICommand::Frame>(
      CLIArgumentParser::parse(words("frame abc --ms 0 --out /tmp/a.png --width 3840 --replace")).value);
  EXPECT_EQ(absolute.outputPath, "/tmp/a.png");
  EXPECT_TRUE(absolute.replace);
}

}  // namespace
}  // namespace vumo
