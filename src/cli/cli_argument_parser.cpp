#include "cli/cli_argument_parser.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string_view>

#include "cli/cli_errors.h"

namespace vumo {

namespace {

constexpr std::int64_t sevenDaysMilliseconds = 604'800'000;
using Words = std::vector<std::string>;

bool isOption(std::string_view word) { return word.starts_with("--"); }

// A whole decimal integer with an optional sign that fits 64 bits.
std::optional<std::int64_t> readInt64(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// A finite decimal number read completely, with no leading white space.
std::optional<double> readDouble(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::general);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::vector<std::string_view> splitKeepingEmpty(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t at = text.find(separator, start);
    if (at == std::string_view::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, at - start));
    start = at + 1;
  }
}

// The parsed option bag: option word to an optional value, in the order given.
class Options {
 public:
  explicit Options(const Words& words, std::size_t first = 0) {
    for (std::size_t i = first; i < words.size();) {
      const std::string& word = words[i];
      if (!isOption(word)) throw CLIArgumentError::unexpectedArgument(word);
      if (find(word) != nullptr) throw CLIArgumentError::invalidValue(word);
      if (i + 1 < words.size() && !isOption(words[i + 1])) {
        entries_.emplace_back(word, words[i + 1]);
        i += 2;
      } else {
        entries_.emplace_back(word, std::nullopt);
        i += 1;
      }
    }
  }

  bool has(std::string_view name) const { return find(name) != nullptr; }
  // The value text, or none when the option is absent or has no value.
  std::optional<std::string> value(std::string_view name) const {
    const auto* entry = find(name);
    return entry == nullptr ? std::nullopt : entry->second;
  }

  void rejectUnknown(std::initializer_list<std::string_view> allowed) const {
    for (const auto& [key, value] : entries_) {
      bool known = false;
      for (auto a : allowed) known = known || a == key;
      if (!known) throw CLIArgumentError::unexpectedArgument(key);
    }
  }

  void requireFlag(std::string_view name) const {
    const auto* entry = find(name);
    if (entry != nullptr && entry->second) throw CLIArgumentError::invalidValue(std::string(name));
  }

  std::int64_t int64(const std::string& name, std::optional<std::int64_t> fallback, std::int64_t minimum,
                     std::int64_t maximum) const {
    std::optional<std::int64_t> result;
    const auto* entry = find(name);
    if (entry != nullptr && entry->second) {
      result = readInt64(*entry->second);
      if (!result) throw CLIArgumentError::invalidValue(name);
    } else {
      if (!fallback) throw CLIArgumentError::missingValue(name);
      result = fallback;
    }
    if (*result < minimum || *result > maximum) throw CLIArgumentError::invalidValue(name);
    return *result;
  }

  double number(const std::string& name, double fallback, double minimum, double maximum) const {
    auto text = value(name);
    if (!text) return fallback;
    auto result = readDouble(*text);
    if (!result || *result < minimum || *result > maximum) throw CLIArgumentError::invalidValue(name);
    return *result;
  }

  std::optional<std::int64_t> optionalInt(const std::string& name) const {
    auto text = value(name);
    if (!text) return std::nullopt;
    auto result = readInt64(*text);
    if (!result || *result < 0) throw CLIArgumentError::invalidValue(name);
    return result;
  }

 private:
  const std::pair<std::string, std::optional<std::string>>* find(std::string_view name) const {
    for (const auto& entry : entries_)
      if (entry.first == name) return &entry;
    return nullptr;
  }

  std::vector<std::pair<std::string, std::optional<std::string>>> entries_;
};

std::string projectID(const Words& words) {
  if (words.empty() || words.front().empty() || isOption(words.front())) throw CLIArgumentError::missingValue("id");
  return words.front();
}

MediaTrackKind audioTrack(std::string_view word) {
  if (word == "microphone") return MediaTrackKind::microphone;
  if (word == "system-audio") return MediaTrackKind::systemAudio;
  throw CLIArgumentError::invalidValue("--track");
}

CLIRange parseRange(std::string_view text) {
  auto parts = splitKeepingEmpty(text, ',');
  if (parts.size() != 2) throw CLIArgumentError::invalidValue("--range");
  auto start = readInt64(parts[0]);
  auto end = readInt64(parts[1]);
  if (!start || !end || *start < 0 || *start >= *end || *end > sevenDaysMilliseconds)
    throw CLIArgumentError::invalidValue("--range");
  return {*start, *end};
}

PointValue parsePoint(std::string_view text) {
  auto parts = splitKeepingEmpty(text, ',');
  if (parts.size() != 2) throw CLIArgumentError::invalidValue("--at");
  auto x = readDouble(parts[0]);
  auto y = readDouble(parts[1]);
  if (!x || !y || *x < 0 || *x > 1 || *y < 0 || *y > 1) throw CLIArgumentError::invalidValue("--at");
  return {*x, *y};
}

// An absolute path or a bare file name, passed on as written: where a bare name lands is the
// output policy's business (cli/output_destination.h), not the grammar's.
std::filesystem::path outputPath(const std::string& text) {
  if (text.starts_with("/")) return text;
  if (text.empty() || text.find('/') != std::string::npos || text == "." || text == "..")
    throw CLIArgumentError::invalidValue("--out");
  return text;
}

struct MutationOptions {
  std::string projectID;
  Options options;
  bool applies;
  std::optional<std::string> expectedDigest;
};

// The commit rule of a single mutation: "--apply" and a value of "--expect" come together or not
// at all. A bare "--expect" without "--apply" is tolerated as a preview.
void checkCommitRule(const Options& options) {
  bool applies = options.has("--apply");
  bool digest = options.value("--expect").has_value();
  if (applies != digest) throw CLIArgumentError::invalidValue("--apply必须与--expect同时提供");
}

MutationOptions mutationOptions(const Words& words, std::initializer_list<std::string_view> allowed) {
  std::string id = projectID(words);
  Options options(words, 1);
  options.rejectUnknown(allowed);
  for (std::string_view flag : {"--source", "--all", "--apply"}) {
    bool listed = false;
    for (auto a : allowed) listed = listed || a == flag;
    if (listed) options.requireFlag(flag);
  }
  checkCommitRule(options);
  return {id, options, options.has("--apply"), options.value("--expect")};
}

CLIRange requiredRange(const Options& options) {
  auto text = options.value("--range");
  if (!text) throw CLIArgumentError::missingValue("--range");
  return parseRange(*text);
}

CLITimeDomain domainOf(const Options& options) {
  return options.has("--source") ? CLITimeDomain::source : CLITimeDomain::sequence;
}

CLICommand mutation(MutationOptions parsed, CLIMutation mutation) {
  return {CLICommand::Mutate{
      {std::move(parsed.projectID), std::move(mutation), parsed.applies, std::move(parsed.expectedDigest)}}};
}

void expectNoWords(const Words& words) {
  if (!words.empty()) throw CLIArgumentError::unexpectedArgument(words.front());
}

std::string singleProjectID(const Words& words) {
  std::string id = projectID(words);
  if (words.size() > 1) throw CLIArgumentError::unexpectedArgument(words[1]);
  return id;
}

Uuid requiredJob(const Options& options) {
  auto text = options.value("--job");
  if (!text) throw CLIArgumentError::missingValue("--job");
  auto job = Uuid::parse(*text);
  if (!job) throw CLIArgumentError::invalidValue("--job");
  return *job;
}

CLICommand parseHelp(const Words& words) {
  if (words.empty()) return {CLICommand::Help{}};
  if (words.size() > 1) throw CLIArgumentError::unexpectedArgument(words[1]);
  auto topic = parseName<CLIAgentHelpTopic>(words[0]);
  if (!topic) throw CLIArgumentError::invalidValue("help topic");
  return {CLICommand::Help{topic}};
}

CLICommand parseIdle(const Words& words) {
  CLICommand::Idle idle;
  idle.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--min-ms", "--silence-db", "--track", "--keep-tail-ms", "--min-removal-ms"});
  idle.minimumMilliseconds = options.int64("--min-ms", 1500, 1, sevenDaysMilliseconds);
  idle.silenceDecibels = options.number("--silence-db", -42.0, -96.0, 0.0);
  if (auto track = options.value("--track")) idle.track = audioTrack(*track);
  idle.keepTailMilliseconds = options.int64("--keep-tail-ms", 500, 0, sevenDaysMilliseconds);
  // 17 ms, one 60 fps frame rounded up, is the shortest removal worth making.
  idle.minimumRemovalMilliseconds = options.int64("--min-removal-ms", 150, 17, sevenDaysMilliseconds);
  return {idle};
}

CLICommand parseCaptionsPrepare(const Words& words) {
  CLICommand::CaptionsPrepare command;
  command.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--track"});
  auto track = options.value("--track");
  command.track = track ? audioTrack(*track) : MediaTrackKind::microphone;
  return {command};
}

CLICommand parseCaptionsGenerate(const Words& words) {
  CLICommand::CaptionsGenerate command;
  command.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--track"});
  auto track = parseName<CaptionTrackSelection>(options.value("--track").value_or("auto"));
  if (!track) throw CLIArgumentError::invalidValue("--track");
  command.track = *track;
  return {command};
}

CLICommand parseCaptionsImport(const Words& words) {
  CLICaptionImportRequest request;
  request.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--job", "--align-audio", "--apply", "--expect-timeline", "--expect-captions"});
  options.requireFlag("--align-audio");
  options.requireFlag("--apply");
  request.jobID = requiredJob(options);
  request.alignsAudio = options.has("--align-audio");
  request.appliesChanges = options.has("--apply");
  request.expectedTimelineDigest = options.value("--expect-timeline");
  request.expectedCaptionsDigest = options.value("--expect-captions");
  bool all = request.appliesChanges && request.expectedTimelineDigest && request.expectedCaptionsDigest;
  bool none = !request.appliesChanges && !request.expectedTimelineDigest && !request.expectedCaptionsDigest;
  if (!all && !none) throw CLIArgumentError::invalidValue("--apply/--expect-timeline/--expect-captions");
  return {CLICommand::CaptionsImport{request}};
}

CLICommand parseEditPlanPreview(const Words& words) {
  CLIEditPlanRequest request;
  request.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--job", "--apply", "--expect-timeline", "--expect-captions", "--expect-plan"});
  options.requireFlag("--apply");
  request.jobID = requiredJob(options);
  request.appliesChanges = options.has("--apply");
  request.expectedTimelineDigest = options.value("--expect-timeline");
  request.expectedCaptionsDigest = options.value("--expect-captions");
  request.expectedPlanDigest = options.value("--expect-plan");
  bool all = request.appliesChanges && request.expectedTimelineDigest && request.expectedCaptionsDigest &&
             request.expectedPlanDigest;
  bool none = !request.appliesChanges && !request.expectedTimelineDigest && !request.expectedCaptionsDigest &&
              !request.expectedPlanDigest;
  if (!all && !none) throw CLIArgumentError::invalidValue("--apply/--expect-timeline/--expect-captions/--expect-plan");
  return {CLICommand::EditPlan{request}};
}

CLICommand parseCut(const Words& words) {
  auto parsed = mutationOptions(words, {"--range", "--source", "--apply", "--expect"});
  CLIMutation::Cut cut{requiredRange(parsed.options), domainOf(parsed.options)};
  return mutation(std::move(parsed), {cut});
}

CLICommand parseSpeed(const Words& words) {
  auto parsed = mutationOptions(words, {"--range", "--rate", "--source", "--apply", "--expect"});
  auto text = parsed.options.value("--rate");
  if (!text) throw CLIArgumentError::missingValue("--rate");
  auto multiplier = readDouble(*text);
  std::optional<TimelinePlaybackRate> rate;
  if (multiplier) rate = TimelinePlaybackRate::fromMultiplier(*multiplier);
  if (!rate) throw CLIArgumentError::invalidValue("--rate");
  CLIMutation::Speed speed{requiredRange(parsed.options), domainOf(parsed.options), *rate};
  return mutation(std::move(parsed), {speed});
}

CLICommand parseZoomAdd(const Words& words) {
  auto parsed = mutationOptions(words, {"--range", "--source", "--level", "--at", "--apply", "--expect"});
  CLIMutation::ZoomAdd zoom;
  if (auto at = parsed.options.value("--at")) zoom.focus = parsePoint(*at);
  zoom.range = requiredRange(parsed.options);
  zoom.domain = domainOf(parsed.options);
  if (auto level = parsed.options.value("--level")) {
    auto value = readDouble(*level);
    if (!value) throw CLIArgumentError::invalidValue("--level");
    zoom.level = *value;
  }
  return mutation(std::move(parsed), {zoom});
}

CLICommand parseZoomRemove(const Words& words) {
  auto parsed = mutationOptions(words, {"--index", "--all", "--apply", "--expect"});
  CLIMutation::ZoomRemove remove{parsed.options.optionalInt("--index"), parsed.options.has("--all")};
  if (remove.index.has_value() == remove.all) throw CLIArgumentError::invalidValue("--index/--all");
  return mutation(std::move(parsed), {remove});
}

CLICommand parseZoomRegenerate(const Words& words) {
  auto parsed = mutationOptions(words, {"--apply", "--expect"});
  return mutation(std::move(parsed), {CLIMutation::ZoomRegenerate{}});
}

CLICommand parseRestore(const Words& words) {
  auto parsed = mutationOptions(words, {"--index", "--apply", "--expect"});
  auto index = parsed.options.optionalInt("--index");
  if (!index) throw CLIArgumentError::missingValue("--index");
  return mutation(std::move(parsed), {CLIMutation::RestoreHistory{*index}});
}

// `set` has positional settings, so it walks the words itself and hands only the commit words to
// the option bag. Its first word is taken as the id prefix unchecked.
CLICommand parseSet(const Words& words) {
  if (words.empty()) throw CLIArgumentError::missingValue("id");
  std::string id = words.front();
  Words kept;
  CLIMutation::Settings settings;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--apply") {
      kept.push_back(word);
    } else if (word == "--expect") {
      if (i + 1 >= words.size()) throw CLIArgumentError::missingValue("--expect");
      kept.push_back(word);
      kept.push_back(words[++i]);
    } else {
      auto eq = word.find('=');
      if (eq == std::string::npos) throw CLIArgumentError::invalidValue(word);
      std::string key = word.substr(0, eq);
      if (settings.values.count(key) != 0) throw CLIArgumentError::invalidValue(key);
      settings.values.emplace(key, word.substr(eq + 1));
    }
  }
  if (settings.values.empty()) throw CLIArgumentError::missingValue("key=value");
  Options options(kept);
  options.rejectUnknown({"--apply", "--expect"});
  options.requireFlag("--apply");
  checkCommitRule(options);
  return mutation({id, options, options.has("--apply"), options.value("--expect")}, {settings});
}

CLICommand parseFrame(const Words& words) {
  CLICommand::Frame frame;
  frame.projectID = projectID(words);
  Options options(words, 1);
  options.rejectUnknown({"--ms", "--out", "--width", "--replace"});
  frame.milliseconds = options.int64("--ms", std::nullopt, 0, sevenDaysMilliseconds);
  auto out = options.value("--out");
  if (!out) throw CLIArgumentError::missingValue("--out");
  frame.outputPath = outputPath(*out);
  frame.width = options.int64("--width", 1280, 2, 3840);
  options.requireFlag("--replace");
  frame.replace = options.has("--replace");
  return {frame};
}

}  // namespace

CLICommand CLIArgumentParser::parse(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return {CLICommand::Help{}};
  const std::string& command = arguments.front();
  const Words rest(arguments.begin() + 1, arguments.end());

  static const std::map<std::string_view, std::function<CLICommand(const Words&)>> commands = {
      {"help", parseHelp},
      {"system-info",
       [](const Words& w) {
         expectNoWords(w);
         return CLICommand{CLICommand::SystemInfo{}};
       }},
      {"list",
       [](const Words& w) {
         expectNoWords(w);
         return CLICommand{CLICommand::List{}};
       }},
      {"describe", [](const Words& w) { return CLICommand{CLICommand::Describe{singleProjectID(w)}}; }},
      {"history", [](const Words& w) { return CLICommand{CLICommand::History{singleProjectID(w)}}; }},
      {"captions-read", [](const Words& w) { return CLICommand{CLICommand::CaptionsRead{singleProjectID(w)}}; }},
      {"edit-plan-prepare", [](const Words& w) { return CLICommand{CLICommand::EditPlanPrepare{singleProjectID(w)}}; }},
      {"idle", parseIdle},
      {"captions-prepare", parseCaptionsPrepare},
      {"captions-generate", parseCaptionsGenerate},
      {"captions-import", parseCaptionsImport},
      {"edit-plan-preview", parseEditPlanPreview},
      {"cut", parseCut},
      {"speed-set", parseSpeed},
      {"zoom-add", parseZoomAdd},
      {"zoom-rm", parseZoomRemove},
      {"zoom-regen", parseZoomRegenerate},
      {"set", parseSet},
      {"restore", parseRestore},
      {"frame", parseFrame},
  };
  auto found = commands.find(command);
  if (found == commands.end()) throw CLIArgumentError::unknownCommand(command);
  return found->second(rest);
}

}  // namespace vumo
