#ifndef ORV_TRANSFER_CHUNK_REPORTER_H_
#define ORV_TRANSFER_CHUNK_REPORTER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orv {

class AllBackupStatus;

// A chunk the async writer has written, as its progress report needs it.
struct WrittenChunk {
  int64_t writePosition = 0;
  int64_t writeLength = 0;
  bool updateProgress = false;
  uint64_t transferValue = 0;
};

// Reports the async writer's chunks (the volume's bytes-transferred figure, whose setter
// stores a log row, and the display line) on a thread of its own, in the order written.
// A report takes the status lock and stores a log row, which can wait on the database
// (another process's lock, a slow disk, the rows of a status request); reported beside
// the writes it does not hold them up. The writer waits while the chunks pending hold
// kMostBytesBehind bytes (four full chunks) or kMostBehind reports, so the figure never
// lags the target by more than four full chunks, while the many small chunks of an
// incremental copy ride out a burst of slow rows. The writer drains the reporter before
// it logs a failure or ends, so every row comes in the same order as when the writer
// reported itself.
//
// The rows of the chunks pending are stored together, on one database connection: a
// row alone costs a session of its own and a prune, about 0.4 ms of CPU, which the
// hundreds of small chunks a second of an incremental copy took from the copy itself on
// a machine of two cores. So a chunk waits up to kGather for others to join it, unless
// someone drains the reporter or the writer would have to wait for it.
// Without a thread (none could be started) each chunk is reported at once.
class ChunkReporter {
 public:
  ChunkReporter(const std::string& volumeUuid, AllBackupStatus* status);
  virtual ~ChunkReporter();
  ChunkReporter(const ChunkReporter&) = delete;
  ChunkReporter& operator=(const ChunkReporter&) = delete;

  void Start();
  void Report(const WrittenChunk& chunk);
  // Returns once every chunk reported so far is told.
  void Drain();
  // Drains and ends the thread.
  void Finish();

  // What the reports of chunks written in turn do: the progress setter (their rows
  // stored together, the figure set to the last), then the display lines.
  static void TellAll(const std::string& volumeUuid, AllBackupStatus* status, const std::vector<WrittenChunk>& chunks);

 private:
  static constexpr size_t kMostBehind = 256;
  static constexpr int64_t kMostBytesBehind = 4 * 12582912;
  static constexpr std::chrono::milliseconds kGather{20};
  // A batch holds the database for a few ms at most, and starts well before the writer
  // would wait for room.
  static constexpr size_t kMostTold = 64;

  void Run();

  std::string volumeUuid_;
  AllBackupStatus* status_;
  std::thread thread_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<WrittenChunk> pending_;
  int64_t pendingBytes_ = 0;  // written bytes of the chunks in pending_
  bool telling_ = false;  // the thread is telling chunks it took from pending_
  bool finish_ = false;
  int draining_ = 0;  // callers waiting in Drain
};

}  // namespace orv

#endif  // ORV_TRANSFER_CHUNK_REPORTER_H_
