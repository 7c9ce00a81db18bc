// Random word lists for the command grammar: it must never crash, and every refusal must be the
// grammar's own error, never a stray exception.

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "cli/cli_argument_parser.h"
#include "cli/cli_errors.h"

namespace {
// Words from the grammar make the fuzzer reach deep into each command quickly.
const char* const vocabulary[] = {"cut",
                                  "speed-set",
                                  "zoom-add",
                                  "zoom-rm",
                                  "zoom-regen",
                                  "set",
                                  "restore",
                                  "frame",
                                  "idle",
                                  "help",
                                  "describe",
                                  "list",
                                  "--range",
                                  "--rate",
                                  "--source",
                                  "--apply",
                                  "--expect",
                                  "--level",
                                  "--at",
                                  "--index",
                                  "--all",
                                  "--ms",
                                  "--out",
                                  "--width",
                                  "--replace",
                                  "--track",
                                  "--job",
                                  "1,2",
                                  "0,604800000",
                                  "2.0",
                                  "-42",
                                  "a=b",
                                  "edit-plan-preview",
                                  "captions-import",
                                  "--min-ms",
                                  "0F8FAD5B-D9CB-469F-A165-70867728950E"};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Bare `--out` names create the application support folder; keep that in a scratch place,
  // removed when the run ends.
  static char pattern[] = "/tmp/vumo-fuzz-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 0;
  ::setenv("XDG_DATA_HOME", pattern, 1);
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(pattern, ignored);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Words are separated by zero bytes; a word made of one byte 0x01..0x24 picks a vocabulary word.
  std::vector<std::string> words;
  std::string current;
  for (std::size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == 0) {
      if (current.size() == 1 && current[0] >= 1 && current[0] <= 36)
        current = vocabulary[static_cast<unsigned char>(current[0]) - 1];
      words.push_back(current);
      current.clear();
    } else {
      current += static_cast<char>(data[i]);
    }
  }
  try {
    (void)vumo::CLIArgumentParser::parse(words);
  } catch (const vumo::CLIArgumentError&) {
  } catch (const std::exception& e) {
    std::fprintf(stderr, "unexpected failure: %s\n", e.what());
    __builtin_trap();
  }
  return 0;
}
