// Runs a fuzz target over files instead of under libFuzzer, so that the regular
// (g++, ASan and UBSan) build replays every corpus as a test. Arguments are files or
// directories of files; each file is one input.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "Can't read %s\n", path.c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // An exact-size heap copy, so that a read past the input is caught as it is under
  // libFuzzer.
  std::vector<uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "Usage: %s FILE|DIRECTORY...\n", argv[0]);
    return 2;
  }
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path path(argv[i]);
    std::vector<std::filesystem::path> files;
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
      std::sort(files.begin(), files.end());
    } else {
      files.push_back(path);
    }
    for (const auto& file : files) {
      if (!Replay(file)) return 1;
      ++replayed;
    }
  }
  // A corpus that went missing must not pass as a replay of nothing.
  if (replayed == 0) {
    fprintf(stderr, "No inputs found\n");
    return 1;
  }
  printf("Replayed %zu inputs\n", replayed);
  return 0;
}
