// Replays every kept input of one fuzz target through its entry point, as a plain program built
// by the ordinary compiler, so CTest checks each corpus on every test run without libFuzzer. The
// targets report a fault by aborting (or by an exception they let through), which ends this
// program the same way. A missing or empty corpus folder is a failure too: a replay that checks
// nothing must not pass.
//
// Usage: fuzz_replay_<target> <corpus folder>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  namespace fs = std::filesystem;
  const fs::path folder = argv[1];
  std::error_code error;
  std::vector<fs::path> inputs;
  for (const auto& entry : fs::directory_iterator(folder, error))
    if (entry.is_regular_file()) inputs.push_back(entry.path());
  if (error) {
    std::fprintf(stderr, "cannot read the corpus folder %s: %s\n", folder.c_str(), error.message().c_str());
    return 1;
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "the corpus folder %s holds no inputs\n", folder.c_str());
    return 1;
  }
  std::sort(inputs.begin(), inputs.end());

  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& input : inputs) {
    // Named before it runs, so a crash points at its input.
    std::fprintf(stderr, "replaying %s\n", input.filename().c_str());
    std::ifstream stream(input, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (!stream.good() && !stream.eof()) {
      std::fprintf(stderr, "cannot read %s\n", input.c_str());
      return 1;
    }
    // A copy of exactly the input's size, so reading past its end trips the address sanitizer.
    std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  std::printf("replayed %zu inputs of %s\n", inputs.size(), folder.filename().c_str());
  return 0;
}
