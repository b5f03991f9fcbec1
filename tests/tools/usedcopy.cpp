// Test tool: copies only the used blocks of a file system, as the used-block copies
// do, piece by piece through GetUsedBlockBitmap, into a zero-filled target, and can
// list the used byte ranges for comparison with other readers.
//
//   usedcopy [--buffer-bytes N] [--ranges FILE] SOURCE [TARGET]
//
// Prints "blockSize=B blockCount=N usedBlocks=U pieces=P" on success; exits 1 on an
// error from the reader, 2 on a usage or I/O error.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fsmaps/used_block_bitmap.h"

namespace {

bool CopyRange(int from, int to, uint64_t offset, uint64_t length, std::vector<uint8_t>& buffer) {
  while (length > 0) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(length, buffer.size()));
    ssize_t got = pread(from, buffer.data(), n, static_cast<off_t>(offset));
    if (got != static_cast<ssize_t>(n)) {
      fprintf(stderr, "usedcopy: read of %zu bytes at %llu failed: %s\n", n, static_cast<unsigned long long>(offset),
              got < 0 ? strerror(errno) : "short read");
      return false;
    }
    if (pwrite(to, buffer.data(), n, static_cast<off_t>(offset)) != static_cast<ssize_t>(n)) {
      fprintf(stderr, "usedcopy: write at %llu failed: %s\n", static_cast<unsigned long long>(offset), strerror(errno));
      return false;
    }
    offset += n;
    length -= n;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t bufferBytes = 10485760;
  std::string rangesPath;
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--buffer-bytes" && i + 1 < argc) {
      bufferBytes = strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--ranges" && i + 1 < argc) {
      rangesPath = argv[++i];
    } else {
      paths.push_back(arg);
    }
  }
  if (paths.empty() || paths.size() > 2 || bufferBytes == 0) {
    fprintf(stderr, "usage: usedcopy [--buffer-bytes N] [--ranges FILE] SOURCE [TARGET]\n");
    return 2;
  }
  int source = open(paths[0].c_str(), O_RDONLY);
  int target = paths.size() == 2 ? open(paths[1].c_str(), O_WRONLY) : -1;
  FILE* ranges = rangesPath.empty() ? nullptr : fopen(rangesPath.c_str(), "w");
  if (source < 0 || (paths.size() == 2 && target < 0) || (!rangesPath.empty() && ranges == nullptr)) {
    fprintf(stderr, "usedcopy: cannot open the source, target or ranges file: %s\n", strerror(errno));
    return 2;
  }
  std::vector<uint8_t> bitmap(bufferBytes);
  std::vector<uint8_t> copyBuffer(12582912);
  uint64_t blockSize = 0;
  uint64_t blockCount = 0;
  uint64_t used = 0;
  uint64_t pieces = 0;
  uint64_t start = 0;
  // An open run of used blocks; runs never cross pieces, as in the agent's copy.
  for (;;) {
    int64_t count = orv::GetUsedBlockBitmap(bufferBytes, start, paths[0], blockSize, blockCount, bitmap.data());
    if (count < 0) {
      fprintf(stderr, "usedcopy: GetUsedBlockBitmap failed at block %llu, errno %d\n",
              static_cast<unsigned long long>(start), errno);
      return 1;
    }
    if (count == 0) break;
    ++pieces;
    int64_t runStart = -1;
    for (int64_t i = 0; i <= count; ++i) {
      bool isUsed = i < count && (bitmap[i / 8] >> (i % 8)) & 1;
      if (isUsed) {
        ++used;
        if (runStart < 0) runStart = i;
        continue;
      }
      if (runStart < 0) continue;
      uint64_t offset = (start + runStart) * blockSize;
      uint64_t length = (i - runStart) * blockSize;
      if (ranges != nullptr) fprintf(ranges, "%llu %llu\n", static_cast<unsigned long long>(offset),
                                     static_cast<unsigned long long>(length));
      if (target >= 0 && !CopyRange(source, target, offset, length, copyBuffer)) return 2;
      runStart = -1;
    }
    start += static_cast<uint64_t>(count);
  }
  if (ranges != nullptr) fclose(ranges);
  if (target >= 0 && (fsync(target) != 0 || close(target) != 0)) return 2;
  close(source);
  printf("blockSize=%llu blockCount=%llu usedBlocks=%llu pieces=%llu\n", static_cast<unsigned long long>(blockSize),
         static_cast<unsigned long long>(blockCount), static_cast<unsigned long long>(used),
         static_cast<unsigned long long>(pieces));
  return 0;
}
