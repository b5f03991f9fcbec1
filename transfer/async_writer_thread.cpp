#include "transfer/async_writer_thread.h"

#include <errno.h>

#include <memory>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "transfer/chunk_reporter.h"
#include "transfer/iscsi_block_device.h"

namespace orv {

AsyncWriterThread::AsyncWriterThread(const std::string& volumeUuid, AllBackupStatus* status)
    : volumeUuid_(volumeUuid), status_(status), reporter_(volumeUuid, status) {}

AsyncWriterThread::~AsyncWriterThread() {
  if (flagMutexReady_) pthread_mutex_destroy(&flagMutex_);
}

int AsyncWriterThread::Init(BlockingQueue<queueitem>* queue, IscsiBlockDevice* device, const std::string& backupId) {
  if (initialised_) {
    Fail("sanity failure: asyncwriterthread already initted: ", -1);
    return EALREADY;
  }
  int result = pthread_mutex_init(&flagMutex_, nullptr);
  if (result != 0) {
    Fail("can't initialize flagmutex: ", result);
    return result;
  }
  flagMutexReady_ = true;
  queue_ = queue;
  device_ = device;
  backupId_ = backupId;
  initialised_ = true;
  return 0;
}

void* AsyncWriterThread::ThreadMain(void* writer) {
  pthread_setname_np(pthread_self(), "orvd-writer");
  LogDisplay(kDebug, "starting async write thread.");
  static_cast<AsyncWriterThread*>(writer)->Run();
  LogDisplay(kDebug, "exiting async write thread.");
  return nullptr;
}

void AsyncWriterThread::Run() {
  if (!initialised_) {
    Fail("sanity failure: can't run thread until initted. ", -1);
    return;
  }
  // The chunks' reports run beside the writes and are all told before the thread ends
  // (or, when the thread is cancelled, before Stop returns). Whatever the device logs
  // waits for them, so that its rows follow the rows of the chunks written before.
  reporter_.Start();
  struct Hook {
    IscsiBlockDevice* device;
    Hook(IscsiBlockDevice* d, ChunkReporter* reporter) : device(d) {
      if (device != nullptr) device->SetBeforeLog([reporter] { reporter->Drain(); });
    }
    ~Hook() {
      if (device != nullptr) device->SetBeforeLog(nullptr);
    }
  } hook(device_, &reporter_);
  for (;;) {
    // Whatever is in flight goes on the wire, in queue order: a new chunk, or those whose
    // writes were lost with a session. One that cannot go ahead (past the LUN's end, say)
    // is written in its turn, after the chunks before it and with none after it on the
    // wire, and fails or is cut there as it always was.
    int result = SendInFlight() ? 0 : WriteInFlight();
    queueitem* popped = nullptr;
    int popResult = 0;
    if (result == 0 && inFlight_.empty()) {
      popResult = queue_->Pop(popped);
    } else if (result == 0) {
      popResult = queue_->TryPop(popped, [this](const queueitem* next) { return next == nullptr || Fits(*next); });
      if (popResult == EAGAIN) {
        // Nothing may go beside the writes in flight: the oldest is written first.
        result = WriteOldest();
        if (result == 0) continue;
      } else if (popResult != 0 || popped == nullptr) {
        // The chunks popped before are written first, as they would have been had each
        // been written when it came.
        result = WriteInFlight();
      }
    }
    if (result != 0) {
      ForgetInFlight();
      Fail("Error performing iscsi target write: ", result);
      return;
    }
    if (popResult != 0) {
      reporter_.Drain();
      Fail("Error pulling item from queue, error: ", popResult);
      return;
    }
    if (popped == nullptr) {
      reporter_.Drain();
      return;
    }
    // Every popped chunk is freed, written or not: by the last of the writer and the
    // device to let it go.
    std::shared_ptr<queueitem> item(popped);
    LogDisplay(kDebug, "read from queue writepos %ld writelen %ld", static_cast<long>(item->writePosition),
               static_cast<long>(item->writeLength));
    bytesInFlight_ += item->writeLength;
    inFlight_.push_back(std::move(item));
  }
}

bool AsyncWriterThread::SendInFlight() {
  for (const std::shared_ptr<queueitem>& item : inFlight_) {
    if (device_ == nullptr ||
        !device_->WriteAhead(item->buffer, static_cast<size_t>(item->writeLength), item->writePosition, item)) {
      return false;
    }
  }
  return true;
}

bool AsyncWriterThread::Fits(const queueitem& next) const {
  return inFlight_.size() < kMostWritesAhead && bytesInFlight_ + next.writeLength <= kMostBytesAhead;
}

int AsyncWriterThread::WriteOldest() {
  std::shared_ptr<queueitem> item = std::move(inFlight_.front());
  inFlight_.pop_front();
  bytesInFlight_ -= item->writeLength;
  int result = WriteItem(*item);
  // Every chunk beside the first was taken by TryPop and still holds a place in the
  // queue: its buffer goes back before the producer may take another.
  item.reset();
  if (!inFlight_.empty()) queue_->Release();
  return result;
}

int AsyncWriterThread::WriteInFlight() {
  while (!inFlight_.empty()) {
    int result = WriteOldest();
    if (result != 0) return result;
  }
  return 0;
}

void AsyncWriterThread::ForgetInFlight() {
  if (device_ != nullptr && !inFlight_.empty()) device_->DropWritesAhead();
  size_t kept = inFlight_.empty() ? 0 : inFlight_.size() - 1;
  inFlight_.clear();
  for (; kept > 0 && queue_ != nullptr; --kept) queue_->Release();
  bytesInFlight_ = 0;
}

int AsyncWriterThread::WriteItem(const queueitem& item) {
  if (device_->Seek(item.writePosition, 0) < 0) {
    int error = errno;
    reporter_.Drain();
    if (status_ != nullptr) status_->setError("Could not seek on target device.", kErrorTargetWrite);
    LogEvent(kError, backupId_, "Iscsi seek to %llu failed: %d", static_cast<unsigned long long>(item.writePosition),
             error);
    return error;
  }
  int64_t written = device_->WriteRetry(item.buffer, static_cast<size_t>(item.writeLength));
  if (written < 1) {
    // A refused empty write leaves errno untouched; the writer still has to fail.
    int error = written < 0 && errno != 0 ? errno : EIO;
    reporter_.Drain();
    if (status_ != nullptr) status_->setError("Could not write to target device.", kErrorTargetWrite);
    LogEvent(kError, backupId_, "Write to iscsi target failed: %d, write returned %d", error, static_cast<int>(written));
    return error;
  }
  WrittenChunk chunk{item.writePosition, item.writeLength, item.updateProgress, item.transferValue};
  reporter_.Report(chunk);
  return 0;
}

void AsyncWriterThread::Fail(const std::string& text, int code) {
  if (!flagMutexReady_) {
    failureText_ += text + std::to_string(code);
    return;
  }
  pthread_mutex_lock(&flagMutex_);
  failureText_ += text + std::to_string(code);
  pthread_mutex_unlock(&flagMutex_);
}

int AsyncWriterThread::GetFailure(std::string& out) {
  if (!flagMutexReady_) return EINVAL;
  int result = pthread_mutex_lock(&flagMutex_);
  if (result != 0) return result;
  out = failureText_;
  pthread_mutex_unlock(&flagMutex_);
  return 0;
}

void AsyncWriterThread::Stop(pthread_t& thread) {
  if (queue_ == nullptr || !queue_->Initialised() || queue_->Push(nullptr) != 0) {
    pthread_cancel(thread);
  }
  pthread_join(thread, nullptr);
  ForgetInFlight();
  reporter_.Finish();
  thread = pthread_t();
}

}  // namespace orv
