#include "transfer/writer_pipeline.h"

#include <errno.h>

#include "daemon/logger.h"

namespace orv {

WriterPipeline::WriterPipeline(IscsiBlockDevice& device, const std::string& backupId, const std::string& volumeUuid,
                               AllBackupStatus* status)
    : device_(device), backupId_(backupId), writer_(volumeUuid, status) {
  queue_.SetCapacity(kQueueCapacity);
}

WriterPipeline::~WriterPipeline() {
  Finish();
  queue_.Destroy();
}

bool WriterPipeline::Start() {
  int result = queue_.Init();
  if (result != 0) {
    LogEvent(kError, backupId_, "Could not create writer queue. errno: %d", result);
    return false;
  }
  result = writer_.Init(&queue_, &device_, backupId_);
  if (result != 0) {
    LogEvent(kError, backupId_, "Unable to init writer object: %d", result);
    return false;
  }
  result = pthread_create(&thread_, nullptr, &AsyncWriterThread::ThreadMain, &writer_);
  if (result != 0) {
    LogEvent(kError, backupId_, "Could not create writer thread. errno: %d", result);
    return false;
  }
  running_ = true;
  return true;
}

std::string WriterPipeline::WriterFailure() {
  std::string failure;
  if (writer_.GetFailure(failure) != 0) failure += "Unable to get async fail flag setting. ";
  return failure;
}

bool WriterPipeline::Push(std::unique_ptr<queueitem> item) {
  // The end marker is Finish's to queue.
  if (!item) return false;
  LogDisplay(kDebug, "Writing to queue writepos %ld writelen %ld", static_cast<long>(item->writePosition),
             static_cast<long>(item->writeLength));
  for (;;) {
    int result = queue_.Push(item.get());
    if (result == ETIMEDOUT) {
      // Still ours: the queue stayed full for a second. A writer that failed no longer
      // empties it, so look at its failure text before trying again.
      std::string failure = WriterFailure();
      if (!failure.empty()) {
        LogEvent(kError, backupId_, "Error from async write thread: %s", failure.c_str());
        return false;
      }
      continue;
    }
    // Queued (or freed by an uninitialised queue): the queue owns it now.
    item.release();
    if (result != 0) {
      LogEvent(kError, backupId_, "Could not write queue item to write queue, error %d", result);
      return false;
    }
    return true;
  }
}

bool WriterPipeline::Finish() {
  if (!running_) return finished_;
  running_ = false;
  int result = queue_.Push(nullptr);
  if (result != 0) {
    LogEvent(kError, backupId_, "Could not write end of backup queue item to write queue, error: %d", result);
    pthread_cancel(thread_);
  }
  pthread_join(thread_, nullptr);
  std::string failure = WriterFailure();
  if (!failure.empty()) {
    LogEvent(kError, backupId_, "Error from async write thread: %s", failure.c_str());
    return false;
  }
  finished_ = result == 0;
  return finished_;
}

std::unique_ptr<queueitem> WriterPipeline::MakeQueueItem(size_t bytes) {
  unsigned char* buffer = AllocateChunkBuffer(bytes);
  if (buffer == nullptr) return nullptr;
  auto item = std::make_unique<queueitem>();
  item->buffer = buffer;
  item->writeLength = static_cast<int64_t>(bytes);
  return item;
}

}  // namespace orv
