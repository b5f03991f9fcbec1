// orv_iscsi_baseline: what the target and the disk allow, measured the plainest way, so
// that the benchmark can put the agent's copies next to it.
//
//   orv_iscsi_baseline write  --portal HOST:PORT --iqn IQN [--lun N] [--bytes N]
//   orv_iscsi_baseline read   --portal HOST:PORT --iqn IQN [--lun N] [--bytes N]
//   orv_iscsi_baseline copy   --portal HOST:PORT --iqn IQN [--lun N] [--bytes N] --source PATH [--runs FILE]
//   orv_iscsi_baseline direct-read --source PATH [--bytes N]
//
// write and read stream the LUN from its start in commands of the agent's chunk size
// (WRITE(16) from one warm buffer, READ(16) straight into one warm buffer). copy is a
// plain two-thread, two-slot copy of a file or device read with O_DIRECT onto the LUN;
// with --runs it copies only the pieces the file lists, one "OFFSET LENGTH" (bytes) a
// line, each read and written as one command at its own offset: the incremental copy's
// runs of changed blocks without the agent.
// direct-read only reads the source with O_DIRECT. The session is set up as the agent
// sets up its own (immediate data, no initial R2T, header digest none or CRC32C). Each
// run prints one JSON object: {"mode": ..., "bytes": ..., "seconds": ..., "mib_s": ...}.
// Exit status: 0 on success, 1 when the run failed, 2 on a usage error.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

namespace orv {
namespace {

constexpr size_t kChunkBytes = 12582912;  // the agent's copy chunk
constexpr size_t kSlots = 2;

using Clock = std::chrono::steady_clock;

struct Options {
  std::string mode;
  std::string portal;
  std::string iqn;
  std::string source;
  std::string runs;
  int lun = 1;
  uint64_t bytes = 0;  // 0: the whole LUN (or source)
};

class AlignedBuffer {
 public:
  explicit AlignedBuffer(size_t bytes) {
    void* memory = nullptr;
    if (posix_memalign(&memory, static_cast<size_t>(getpagesize()), bytes) == 0) {
      data_ = static_cast<unsigned char*>(memory);
      // Touched once, so that no run pays for page faults.
      for (size_t i = 0; i < bytes; ++i) data_[i] = static_cast<unsigned char>(i * 131 + 7);
    }
  }
  ~AlignedBuffer() { free(data_); }
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  unsigned char* data() const { return data_; }

 private:
  unsigned char* data_ = nullptr;
};

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

class Session {
 public:
  Session() = default;
  ~Session() {
    if (context_ != nullptr) {
      if (iscsi_is_logged_in(context_)) iscsi_logout_sync(context_);
      iscsi_destroy_context(context_);
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool Connect(const Options& options) {
    lun_ = options.lun;
    context_ = iscsi_create_context(options.iqn.c_str());
    if (context_ == nullptr) return Fail("cannot create an iSCSI context");
    iscsi_set_targetname(context_, options.iqn.c_str());
    iscsi_set_session_type(context_, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(context_, ISCSI_HEADER_DIGEST_NONE_CRC32C);
    iscsi_set_immediate_data(context_, ISCSI_IMMEDIATE_DATA_YES);
    iscsi_set_initial_r2t(context_, ISCSI_INITIAL_R2T_NO);
    iscsi_set_timeout(context_, 60);
    if (iscsi_full_connect_sync(context_, options.portal.c_str(), lun_) != 0) {
      return Fail(std::string("login failed: ") + iscsi_get_error(context_));
    }
    scsi_task* task = iscsi_readcapacity16_sync(context_, lun_);
    bool good = task != nullptr && task->status == SCSI_STATUS_GOOD;
    auto* capacity = good ? static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(task)) : nullptr;
    if (capacity != nullptr && capacity->block_length > 0) {
      blockSize_ = capacity->block_length;
      size_ = (capacity->returned_lba + 1) * blockSize_;
    }
    if (task != nullptr) scsi_free_scsi_task(task);
    if (size_ == 0) return Fail("READ CAPACITY(16) failed");
    return true;
  }

  bool Write(uint64_t offset, unsigned char* data, size_t bytes) {
    scsi_task* task = iscsi_write16_sync(context_, lun_, offset / blockSize_, data, static_cast<uint32_t>(bytes),
                                         static_cast<int>(blockSize_), 0, 0, 0, 0, 0);
    return Finish(task, "WRITE(16)");
  }

  bool Read(uint64_t offset, unsigned char* data, size_t bytes) {
    scsi_iovec iov{data, bytes};
    scsi_task* task = iscsi_read16_iov_sync(context_, lun_, offset / blockSize_, static_cast<uint32_t>(bytes),
                                            static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &iov, 1);
    return Finish(task, "READ(16)");
  }

  uint64_t size() const { return size_; }
  uint64_t blockSize() const { return blockSize_; }

 private:
  bool Finish(scsi_task* task, const char* command) {
    bool good = task != nullptr && task->status == SCSI_STATUS_GOOD;
    if (task != nullptr) scsi_free_scsi_task(task);
    if (!good) return Fail(std::string(command) + " failed: " + iscsi_get_error(context_));
    return true;
  }
  static bool Fail(const std::string& text) {
    fprintf(stderr, "orv_iscsi_baseline: %s\n", text.c_str());
    return false;
  }

  iscsi_context* context_ = nullptr;
  int lun_ = 1;
  uint64_t blockSize_ = 512;
  uint64_t size_ = 0;
};

void Report(const std::string& mode, uint64_t bytes, Clock::time_point start) {
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  printf("{\"mode\": \"%s\", \"bytes\": %llu, \"seconds\": %.6f, \"mib_s\": %.2f}\n", mode.c_str(),
         static_cast<unsigned long long>(bytes), seconds, seconds > 0 ? bytes / seconds / 1048576.0 : 0.0);
  fflush(stdout);
}

// Bytes to move: what was asked, cut to what the LUN and the source hold.
uint64_t Amount(uint64_t asked, uint64_t limit) { return asked == 0 || asked > limit ? limit : asked; }

uint64_t SourceSize(int fd) {
  off_t end = lseek(fd, 0, SEEK_END);
  return end < 0 ? 0 : static_cast<uint64_t>(end);
}

ssize_t ReadFull(int fd, unsigned char* data, size_t bytes, uint64_t offset) {
  size_t done = 0;
  while (done < bytes) {
    ssize_t n = pread(fd, data + done, bytes - done, static_cast<off_t>(offset + done));
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

int RunWrite(const Options& options) {
  Session session;
  if (!session.Connect(options)) return 1;
  AlignedBuffer buffer(kChunkBytes);
  uint64_t total = Amount(options.bytes, session.size());
  auto start = Clock::now();
  for (uint64_t at = 0; at < total; at += kChunkBytes) {
    if (!session.Write(at, buffer.data(), static_cast<size_t>(std::min<uint64_t>(kChunkBytes, total - at)))) return 1;
  }
  Report("write", total, start);
  return 0;
}

int RunRead(const Options& options) {
  Session session;
  if (!session.Connect(options)) return 1;
  AlignedBuffer buffer(kChunkBytes);
  uint64_t total = Amount(options.bytes, session.size());
  auto start = Clock::now();
  for (uint64_t at = 0; at < total; at += kChunkBytes) {
    if (!session.Read(at, buffer.data(), static_cast<size_t>(std::min<uint64_t>(kChunkBytes, total - at)))) return 1;
  }
  Report("read", total, start);
  return 0;
}

int RunDirectRead(const Options& options) {
  Fd fd(open(options.source.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (fd.get() < 0) {
    fprintf(stderr, "orv_iscsi_baseline: cannot open %s: %s\n", options.source.c_str(), strerror(errno));
    return 1;
  }
  AlignedBuffer buffer(kChunkBytes);
  uint64_t total = Amount(options.bytes, SourceSize(fd.get()));
  auto start = Clock::now();
  for (uint64_t at = 0; at < total; at += kChunkBytes) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(kChunkBytes, total - at));
    if (ReadFull(fd.get(), buffer.data(), want, at) != static_cast<ssize_t>(want)) {
      fprintf(stderr, "orv_iscsi_baseline: short read of %s at %llu\n", options.source.c_str(),
              static_cast<unsigned long long>(at));
      return 1;
    }
  }
  Report("direct-read", total, start);
  return 0;
}

struct Piece {
  uint64_t offset;
  size_t bytes;
};

// The pieces of a copy: the source in chunks from its start, or the runs a file lists,
// each whole blocks of the LUN inside `total`.
bool Pieces(const Options& options, uint64_t total, uint64_t block, std::vector<Piece>* pieces) {
  if (options.runs.empty()) {
    for (uint64_t at = 0; at < total; at += kChunkBytes) {
      pieces->push_back({at, static_cast<size_t>(std::min<uint64_t>(kChunkBytes, total - at))});
    }
    return true;
  }
  FILE* file = fopen(options.runs.c_str(), "r");
  if (file == nullptr) {
    fprintf(stderr, "orv_iscsi_baseline: cannot open %s: %s\n", options.runs.c_str(), strerror(errno));
    return false;
  }
  unsigned long long offset = 0;
  unsigned long long bytes = 0;
  int line = 0;
  bool good = true;
  while (good) {
    int fields = fscanf(file, "%llu %llu", &offset, &bytes);
    if (fields == EOF) break;
    ++line;
    good = fields == 2 && bytes > 0 && bytes <= kChunkBytes && offset % block == 0 && bytes % block == 0 &&
           offset <= total && bytes <= total - offset;
    if (good) pieces->push_back({offset, static_cast<size_t>(bytes)});
  }
  fclose(file);
  if (!good) {
    fprintf(stderr, "orv_iscsi_baseline: %s line %d: want OFFSET LENGTH in bytes, whole blocks of %llu bytes, at "
            "most %zu bytes, inside the source and the LUN\n", options.runs.c_str(), line,
            static_cast<unsigned long long>(block), kChunkBytes);
  }
  return good;
}

// Two slots between a reader thread and the writing thread: the reader fills a slot while
// the other is written, as the agent's copy overlaps its reads and writes.
int RunCopy(const Options& options) {
  Session session;
  if (!session.Connect(options)) return 1;
  Fd fd(open(options.source.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (fd.get() < 0) {
    fprintf(stderr, "orv_iscsi_baseline: cannot open %s: %s\n", options.source.c_str(), strerror(errno));
    return 1;
  }
  uint64_t total = Amount(Amount(options.bytes, SourceSize(fd.get())), session.size());
  std::vector<Piece> pieces;
  if (!Pieces(options, total, session.blockSize(), &pieces)) return 1;
  std::unique_ptr<AlignedBuffer> slots[kSlots];
  for (auto& slot : slots) slot = std::make_unique<AlignedBuffer>(kChunkBytes);
  std::mutex lock;
  std::condition_variable changed;
  size_t filled = 0;   // pieces read so far
  size_t written = 0;  // pieces written so far
  bool failed = false;
  auto start = Clock::now();
  std::thread reader([&] {
    for (size_t k = 0; k < pieces.size(); ++k) {
      {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [&] { return failed || k - written < kSlots; });
        if (failed) return;
      }
      const Piece& piece = pieces[k];
      bool good = ReadFull(fd.get(), slots[k % kSlots]->data(), piece.bytes, piece.offset) ==
                  static_cast<ssize_t>(piece.bytes);
      std::lock_guard<std::mutex> hold(lock);
      if (!good) failed = true;
      filled = k + 1;
      changed.notify_all();
      if (failed) return;
    }
  });
  uint64_t moved = 0;
  for (size_t k = 0; k < pieces.size(); ++k) {
    {
      std::unique_lock<std::mutex> hold(lock);
      changed.wait(hold, [&] { return failed || filled > k; });
      if (failed) break;
    }
    bool good = session.Write(pieces[k].offset, slots[k % kSlots]->data(), pieces[k].bytes);
    moved += pieces[k].bytes;
    std::lock_guard<std::mutex> hold(lock);
    if (!good) failed = true;
    written = k + 1;
    changed.notify_all();
    if (failed) break;
  }
  reader.join();
  if (failed) {
    fprintf(stderr, "orv_iscsi_baseline: copy failed\n");
    return 1;
  }
  Report(options.runs.empty() ? "copy" : "copy-runs", moved, start);
  return 0;
}

int Usage() {
  fprintf(stderr,
          "usage: orv_iscsi_baseline write|read|copy|direct-read [--portal HOST:PORT] [--iqn IQN] [--lun N]\n"
          "                          [--bytes N] [--source PATH] [--runs FILE]\n");
  return 2;
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  using namespace orv;
  if (argc < 2) return Usage();
  Options options;
  options.mode = argv[1];
  for (int i = 2; i < argc; ++i) {
    std::string name = argv[i];
    if (i + 1 >= argc) return Usage();
    std::string value = argv[++i];
    if (name == "--portal") {
      options.portal = value;
    } else if (name == "--iqn") {
      options.iqn = value;
    } else if (name == "--lun") {
      options.lun = atoi(value.c_str());
    } else if (name == "--bytes") {
      options.bytes = strtoull(value.c_str(), nullptr, 10);
    } else if (name == "--source") {
      options.source = value;
    } else if (name == "--runs" && options.mode == "copy") {
      options.runs = value;
    } else {
      return Usage();
    }
  }
  bool needsTarget = options.mode != "direct-read";
  bool needsSource = options.mode == "copy" || options.mode == "direct-read";
  if ((needsTarget && (options.portal.empty() || options.iqn.empty())) || (needsSource && options.source.empty())) {
    return Usage();
  }
  if (options.mode == "write") return RunWrite(options);
  if (options.mode == "read") return RunRead(options);
  if (options.mode == "copy") return RunCopy(options);
  if (options.mode == "direct-read") return RunDirectRead(options);
  return Usage();
}
