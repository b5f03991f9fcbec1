#include "transfer/chunk_reporter.h"

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
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error&) {
    // Reporting on the writer's own thread is slower, not wrong.
  }
}

void ChunkReporter::Report(const WrittenChunk& chunk) {
  if (!thread_.joinable()) {
    Tell(volumeUuid_, status_, chunk);
    return;
  }
  std::unique_lock<std::mutex> hold(lock_);
  changed_.wait(hold, [&] { return pending_.size() < kMostBehind && pendingBytes_ < kMostBytesBehind; });
  pending_.push_back(chunk);
  pendingBytes_ += chunk.writeLength;
  changed_.notify_all();
}

void ChunkReporter::Drain() {
  std::unique_lock<std::mutex> hold(lock_);
  changed_.wait(hold, [&] { return pending_.empty() && !telling_; });
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

void ChunkReporter::Tell(const std::string& volumeUuid, AllBackupStatus* status, const WrittenChunk& chunk) {
  if (chunk.updateProgress && status != nullptr) status->setBytesTransferred(volumeUuid, chunk.transferValue);
  LogDisplay(kDebug, "Wrote data chunk (write offset: %llu - length: %llu)  transfer value: %llu",
             static_cast<unsigned long long>(chunk.writePosition), static_cast<unsigned long long>(chunk.writeLength),
             static_cast<unsigned long long>(chunk.transferValue));
}

void ChunkReporter::Run() {
  std::unique_lock<std::mutex> hold(lock_);
  for (;;) {
    changed_.wait(hold, [&] { return finish_ || !pending_.empty(); });
    if (pending_.empty()) return;  // finishing, and everything told
    WrittenChunk chunk = pending_.front();
    pending_.pop_front();
    pendingBytes_ -= chunk.writeLength;
    telling_ = true;
    hold.unlock();
    Tell(volumeUuid_, status_, chunk);
    hold.lock();
    telling_ = false;
    changed_.notify_all();
  }
}

}  // namespace orv
