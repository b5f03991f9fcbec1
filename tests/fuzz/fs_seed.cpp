// Makes a seed for the file-system fuzz targets from an image file: reads the image's
// used-block map the way the targets do, records every byte range the readers read,
// and writes just those ranges (their parts that are not zero) in the targets' input
// form (SparseBlockSource). A seed then holds the structures the readers parse and
// none of the file data or inode tables they never look at.
//
// Usage: fs_seed IMAGE OUTPUT
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

#include "fsmaps/block_source.h"
#include "fsmaps/used_block_bitmap.h"
#include "tests/fuzz/sparse_block_source.h"

namespace orv {
namespace {

class RecordingBlockSource : public BlockSource {
 public:
  explicit RecordingBlockSource(BlockSource& source) : source_(source) {}
  ~RecordingBlockSource() override = default;

  Result ReadAt(uint64_t offset, void* buffer, size_t length) override {
    Result result = source_.ReadAt(offset, buffer, length);
    if (result == Result::kOk && length > 0) reads_.emplace_back(offset, offset + length);
    return result;
  }
  uint64_t Size() const override { return source_.Size(); }

  // The ranges read, sorted and merged.
  std::vector<std::pair<uint64_t, uint64_t>> Ranges() const {
    std::vector<std::pair<uint64_t, uint64_t>> sorted = reads_;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::pair<uint64_t, uint64_t>> merged;
    for (const auto& range : sorted) {
      if (!merged.empty() && range.first <= merged.back().second) {
        merged.back().second = std::max(merged.back().second, range.second);
      } else {
        merged.push_back(range);
      }
    }
    return merged;
  }

 private:
  BlockSource& source_;
  std::vector<std::pair<uint64_t, uint64_t>> reads_;
};

void PutLe(std::vector<uint8_t>& out, uint64_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// Appends the parts of `bytes` (which sit at `offset`) that are not zero, as runs; runs
// closer than a run header are joined.
void AppendRuns(std::vector<uint8_t>& out, uint64_t offset, const std::vector<uint8_t>& bytes) {
  constexpr size_t kJoin = 8;
  constexpr size_t kMaxRun = 65535;
  size_t i = 0;
  while (i < bytes.size()) {
    if (bytes[i] == 0) {
      ++i;
      continue;
    }
    size_t end = i + 1;
    size_t zeros = 0;
    while (end < bytes.size() && end - i < kMaxRun && zeros <= kJoin) {
      zeros = bytes[end] == 0 ? zeros + 1 : 0;
      ++end;
    }
    end -= zeros;
    PutLe(out, offset + i, 4);
    PutLe(out, end - i, 2);
    out.insert(out.end(), bytes.begin() + static_cast<std::ptrdiff_t>(i),
               bytes.begin() + static_cast<std::ptrdiff_t>(end));
    i = end;
  }
}

int Run(const char* imagePath, const char* outputPath) {
  FileBlockSource file(imagePath);
  if (!file.IsOpen()) {
    perror(imagePath);
    return 1;
  }
  if (file.Size() > SparseBlockSource::kMaxDeviceBytes) {
    fprintf(stderr, "%s: larger than the %llu bytes a fuzz input can describe\n", imagePath,
            static_cast<unsigned long long>(SparseBlockSource::kMaxDeviceBytes));
    return 1;
  }
  RecordingBlockSource source(file);
  uint64_t blockSize = 0;
  uint64_t blockCount = 0;
  std::vector<uint8_t> probe(1);
  if (GetUsedBlockBitmap(probe.size(), 0, source, blockSize, blockCount, probe.data()) <= 0) {
    fprintf(stderr, "%s: no file system whose used blocks can be read\n", imagePath);
    return 1;
  }
  std::vector<uint8_t> bitmap((blockCount + 7) / 8);
  if (GetUsedBlockBitmap(bitmap.size(), 0, source, blockSize, blockCount, bitmap.data()) < 0) {
    fprintf(stderr, "%s: the used-block map can't be read\n", imagePath);
    return 1;
  }
  std::vector<uint8_t> seed;
  PutLe(seed, file.Size(), 4);
  uint64_t read = 0;
  for (const auto& [begin, end] : source.Ranges()) {
    std::vector<uint8_t> bytes(end - begin);
    if (file.ReadAt(begin, bytes.data(), bytes.size()) != BlockSource::Result::kOk) {
      perror(imagePath);
      return 1;
    }
    read += bytes.size();
    AppendRuns(seed, begin, bytes);
  }
  FILE* out = fopen(outputPath, "wb");
  if (out == nullptr || fwrite(seed.data(), 1, seed.size(), out) != seed.size() || fclose(out) != 0) {
    perror(outputPath);
    return 1;
  }
  printf("%s: %llu bytes read of %s kept in %zu bytes\n", outputPath, static_cast<unsigned long long>(read), imagePath,
         seed.size());
  return 0;
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "Usage: %s IMAGE OUTPUT\n", argv[0]);
    return 2;
  }
  return orv::Run(argv[1], argv[2]);
}
