#ifndef ORV_TRANSFER_WRITER_PIPELINE_H_
#define ORV_TRANSFER_WRITER_PIPELINE_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "transfer/async_writer_thread.h"
#include "transfer/blocking_queue.h"
#include "transfer/queueitem.h"

namespace orv {

class AllBackupStatus;
class IscsiBlockDevice;

// The producer side of a copy: the writer queue (capacity 2), the async writer and its
// thread, and the loop that hands chunks over while watching the writer's failure text.
// Every copy (full, incremental) reads on its own thread and pushes here:
//
//   WriterPipeline pipeline(device, backupId, volumeUuid, status);
//   if (!pipeline.Start()) fail;
//   for each chunk: item = MakeQueueItem(...); fill; if (!pipeline.Push(std::move(item))) break;
//   ok = pipeline.Finish() && ok;
//
// Finish (or the destructor) always ends the writer cleanly, so chunks already queued are
// written or freed also after a failure.
class WriterPipeline {
 public:
  static constexpr uint32_t kQueueCapacity = 2;

  WriterPipeline(IscsiBlockDevice& device, const std::string& backupId, const std::string& volumeUuid,
                 AllBackupStatus* status);
  virtual ~WriterPipeline();
  WriterPipeline(const WriterPipeline&) = delete;
  WriterPipeline& operator=(const WriterPipeline&) = delete;

  // Makes the queue, initialises the writer and starts its thread.
  bool Start();
  // Queues one chunk, pushing again every second while the queue is full and the writer
  // has not failed. False when the writer failed or the queue refused the chunk; the
  // chunk is freed either way.
  bool Push(std::unique_ptr<queueitem> item);
  // Queues the end-of-backup marker, joins the writer and checks its failure text once
  // more. True only when the writer wrote everything; a second call repeats the answer.
  bool Finish();

  // A chunk with a page-aligned buffer of `bytes` (for O_DIRECT reads) and that write
  // length; null with errno set when the buffer cannot be had.
  static std::unique_ptr<queueitem> MakeQueueItem(size_t bytes);

 private:
  // The writer's failure text; "Unable to get async fail flag setting. " when it
  // cannot be read.
  std::string WriterFailure();

  IscsiBlockDevice& device_;
  std::string backupId_;
  BlockingQueue<queueitem> queue_;
  AsyncWriterThread writer_;
  pthread_t thread_{};
  bool running_ = false;
  bool finished_ = false;  // the writer ended on the marker without failure
};

}  // namespace orv

#endif  // ORV_TRANSFER_WRITER_PIPELINE_H_
