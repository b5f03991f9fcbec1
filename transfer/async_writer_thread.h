#ifndef ORV_TRANSFER_ASYNC_WRITER_THREAD_H_
#define ORV_TRANSFER_ASYNC_WRITER_THREAD_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "transfer/blocking_queue.h"
#include "transfer/chunk_reporter.h"
#include "transfer/queueitem.h"

namespace orv {

class AllBackupStatus;
class IscsiBlockDevice;

// The consumer of a copy's writer queue: pops chunks, seeks and writes them to the
// volume's iSCSI LUN, advances the volume's bytes-transferred figure (through a
// ChunkReporter, beside the next write) and keeps a failure text that the copier polls.
// Errors reach the copier only through that text and the status document's error entries
// (code 108).
//
// Two writes are on the wire at once (IscsiBlockDevice::WriteAhead), so that the target
// takes in the next small run of an incremental copy while it writes one; yet each chunk
// is taken in queue order, its write's answer told as if the write had been sent at that
// moment, and only then reported. A chunk waits in the queue while the writes in flight
// would pass kMostWritesAhead or kMostBytesAhead with it, so a copy of full chunks has
// one write in flight; and a chunk in flight beside the first keeps its place in the
// queue (BlockingQueue::TryPop), so that a copy never holds more chunk buffers than with
// one write at a time (a used-blocks copy, whose chunks are large but seldom full, peaked
// 12 MiB higher without that).
//
// Two, measured on the 10% incremental copy against the tuned target on two cores: 0.26 s
// with two in flight, 0.30-0.37 s with one, 0.33-0.35 s with three or four and 0.44-0.49 s
// with eight, where tgtd's writers and the copy's own threads crowd the cores.
class AsyncWriterThread {
 public:
  static constexpr size_t kMostWritesAhead = 2;
  static constexpr int64_t kMostBytesAhead = static_cast<int64_t>(kChunkBytes);

  // volumeUuid names the volume record whose progress the writer advances; status may be
  // null when nobody watches (tools), then progress and errors go to the log only.
  AsyncWriterThread(const std::string& volumeUuid, AllBackupStatus* status);
  virtual ~AsyncWriterThread();
  AsyncWriterThread(const AsyncWriterThread&) = delete;
  AsyncWriterThread& operator=(const AsyncWriterThread&) = delete;

  // Neither the queue nor the connected device is owned; both outlive the thread.
  int Init(BlockingQueue<queueitem>* queue, IscsiBlockDevice* device, const std::string& backupId);
  // The thread body: ends on the end-of-backup marker or on the first failure.
  void Run();
  // Entry for pthread_create with the writer as argument.
  static void* ThreadMain(void* writer);
  // Seeks and writes one chunk; 0 or errno.
  int WriteItem(const queueitem& item);
  // Appends `text` and the decimal `code` to the failure text.
  void Fail(const std::string& text, int code);
  // Copies the failure text (empty while all is well); the lock's error number.
  int GetFailure(std::string& out);
  // Ends the thread: an end marker that never waits for room, then a join; a cancel
  // when the marker cannot be queued. The handle is cleared.
  void Stop(pthread_t& thread);

 private:
  // Whether `next` may go on the wire beside the writes in flight.
  bool Fits(const queueitem& next) const;
  // Sends ahead, in order, the chunks in flight that are not on the wire; false when one
  // cannot go ahead.
  bool SendInFlight();
  // Writes the oldest chunk in flight (taking the answer of its write ahead) and frees
  // it; 0 or errno.
  int WriteOldest();
  // Writes every chunk in flight, oldest first; 0 or the first failure's errno.
  int WriteInFlight();
  // After a failure or a cancel: waits for the writes still on the wire and frees their
  // chunks, untold.
  void ForgetInFlight();

  std::string volumeUuid_;
  AllBackupStatus* status_;
  bool initialised_ = false;
  std::string failureText_;
  // Made by Init, so that a failure to make it reaches the failure text.
  pthread_mutex_t flagMutex_;
  bool flagMutexReady_ = false;
  BlockingQueue<queueitem>* queue_ = nullptr;
  IscsiBlockDevice* device_ = nullptr;
  std::string backupId_;
  // Reports each written chunk beside the next write once Run started it, at once before.
  // Not on Run's stack: a cancelled writer thread unwinds without waiting for it.
  ChunkReporter reporter_;
  // The chunks popped and not yet written, oldest first, most of them written ahead; the
  // device shares those it sent until libiscsi lets go of their buffers. Not on Run's
  // stack either, so that Stop can wait for them after a cancel.
  std::deque<std::shared_ptr<queueitem>> inFlight_;
  int64_t bytesInFlight_ = 0;
};

}  // namespace orv

#endif  // ORV_TRANSFER_ASYNC_WRITER_THREAD_H_
