#include "transfer/chunk_reporter.h"

#include <pthread.h>

#include <system_error>

#include "api/all_backup_status.h"
#include "daemon/logger.h"

namespace orv {

ChunkReporter::ChunkReporter(const std::string& volumeUuid, AllBackupStatus* status)
    : volumeUuid_(volumeUuid), status_(status) {}

ChunkReporter::~ChunkReporter() { Finish(); }

void ChunkReporter::Start() {
  if (thread_.joinable()) return;
  try {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "orvd-reporter");
      Run();
    });
  } catch (const std::system_error&) {
    // Reporting on the writer's own thread is slower, not wrong.
  }
}

void ChunkReporter::Report(const WrittenChunk& chunk) {
  if (!thread_.joinable()) {
    TellAll(volumeUuid_, status_, {chunk});
    return;
  }
  std::unique_lock<std::mutex> hold(lock_);
  changed_.wait(hold, [&] { return pending_.size() < kMostBehind && pendingBytes_ < kMostBytesBehind; });
  pending_.push_back(chunk);
  pendingBytes_ += chunk.writeLength;
  // The thread waits for a first chunk, then gathers until a batch is full or the writer
  // would soon have to wait: only those wake it.
  if (pending_.size() == 1 || pending_.size() >= kMostTold || pendingBytes_ >= kMostBytesBehind) {
    changed_.notify_all();
  }
}

void ChunkReporter::Drain() {
  std::unique_lock<std::mutex> hold(lock_);
  ++draining_;
  changed_.notify_all();
  changed_.wait(hold, [&] { return pending_.empty() && !telling_; });
  --draining_;
}

void ChunkReporter::Finish() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> hold(lock_);
    finish_ = true;
    changed_.notify_all();
  }
  thread_.join();
  std::lock_guard<std::mutex> hold(lock_);
  finish_ = false;
}

void ChunkReporter::TellAll(const std::string& volumeUuid, AllBackupStatus* status,
                            const std::vector<WrittenChunk>& chunks) {
  std::vector<uint64_t> figures;
  for (const WrittenChunk& chunk : chunks) {
    if (chunk.updateProgress) figures.push_back(chunk.transferValue);
  }
  if (status != nullptr) status->setBytesTransferred(volumeUuid, figures);
  for (const WrittenChunk& chunk : chunks) {
    LogDisplay(kDebug, "Wrote data chunk (write offset: %llu - length: %llu)  transfer value: %llu",
               static_cast<unsigned long long>(chunk.writePosition), static_cast<unsigned long long>(chunk.writeLength),
               static_cast<unsigned long long>(chunk.transferValue));
  }
}

void ChunkReporter::Run() {
  std::unique_lock<std::mutex> hold(lock_);
  std::vector<WrittenChunk> batch;
  for (;;) {
    changed_.wait(hold, [&] { return finish_ || !pending_.empty(); });
    if (pending_.empty()) return;  // finishing, and everything told
    changed_.wait_for(hold, kGather, [&] {
      return finish_ || draining_ > 0 || pending_.size() >= kMostTold || pendingBytes_ >= kMostBytesBehind;
    });
    batch.clear();
    while (!pending_.empty() && batch.size() < kMostTold) {
      batch.push_back(pending_.front());
      pending_.pop_front();
      pendingBytes_ -= batch.back().writeLength;
    }
    telling_ = true;
    hold.unlock();
    TellAll(volumeUuid_, status_, batch);
    hold.lock();
    telling_ = false;
    changed_.notify_all();
  }
}

}  // namespace orv
