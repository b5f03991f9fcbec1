#ifndef ORV_TRANSFER_BLOCKING_QUEUE_H_
#define ORV_TRANSFER_BLOCKING_QUEUE_H_

#include <errno.h>
#include <pthread.h>
#include <sys/time.h>

#include <cstdint>
#include <deque>

namespace orv {

// A small bounded FIFO of T pointers between one producer and one consumer, with every
// wait bounded to one second so that both sides keep looking at their flags. The queue
// owns the items it holds (deleted by Destroy); a null pointer is an ordinary entry that
// consumers read as an end marker and that never waits for room.
template <typename T>
class BlockingQueue {
 public:
  BlockingQueue() = default;
  virtual ~BlockingQueue() {
    if (initialised_) Destroy();
  }
  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  // The most items a producer may leave in the queue; set before Init.
  void SetCapacity(uint32_t capacity) { capacity_ = capacity; }
  uint32_t Capacity() const { return capacity_; }
  bool Initialised() const { return initialised_; }

  // 0 or the error of the pthread call that failed (earlier ones are undone).
  int Init() {
    int result = pthread_cond_init(&notEmpty_, nullptr);
    if (result != 0) return result;
    result = pthread_cond_init(&notFull_, nullptr);
    if (result != 0) {
      pthread_cond_destroy(&notEmpty_);
      return result;
    }
    result = pthread_mutex_init(&lock_, nullptr);
    if (result != 0) {
      pthread_cond_destroy(&notFull_);
      pthread_cond_destroy(&notEmpty_);
      return result;
    }
    initialised_ = true;
    return 0;
  }

  // Ownership of `item` passes to the queue unless ETIMEDOUT is returned: then the queue
  // stayed full for a second and the caller still holds the item and decides whether to
  // push again. EINVAL (not initialised) deletes the item. Any other wait error queues
  // the item all the same and is returned.
  int Push(T* item) {
    if (!initialised_) {
      delete item;
      return EINVAL;
    }
    Lock hold(&lock_);
    size_t count = items_.size();
    int waited = 0;
    if (item != nullptr) {
      while (count + kept_ >= capacity_) {
        struct timespec deadline = OneSecondFromNow();
        waited = pthread_cond_timedwait(&notFull_, &lock_, &deadline);
        if (waited != 0) break;
        count = items_.size();
      }
    }
    if (waited == ETIMEDOUT) return ETIMEDOUT;
    items_.push_back(item);
    int result = 0;
    if (count == 0) result = pthread_cond_broadcast(&notEmpty_);
    return waited != 0 ? waited : result;
  }

  // Waits as long as the queue is empty, looking again every second. `item` receives
  // the front pointer (null for the marker) and its ownership.
  int Pop(T*& item) {
    if (!initialised_) return EINVAL;
    Lock hold(&lock_);
    while (items_.empty()) {
      struct timespec deadline = OneSecondFromNow();
      int waited = pthread_cond_timedwait(&notEmpty_, &lock_, &deadline);
      if (waited != 0 && waited != ETIMEDOUT) return waited;
    }
    TakeFront(item);
    return 0;
  }

  // Pop without waiting, and only an item that `accept` (called with the front pointer
  // under the lock) takes: EAGAIN when the queue is empty or the front is refused. For a
  // consumer that already holds an item: the one popped here goes on taking a place in
  // the queue until Release, so that holding two leaves the producer no more room (and
  // no more chunks alive) than holding one.
  template <typename Accept>
  int TryPop(T*& item, Accept accept) {
    if (!initialised_) return EINVAL;
    Lock hold(&lock_);
    if (items_.empty() || !accept(static_cast<const T*>(items_.front()))) return EAGAIN;
    item = items_.front();
    items_.pop_front();
    if (item != nullptr) ++kept_;
    return 0;
  }

  // The consumer let go of an item popped by TryPop: its place is free.
  void Release() {
    if (!initialised_) return;
    Lock hold(&lock_);
    if (kept_ == 0) return;
    --kept_;
    pthread_cond_broadcast(&notFull_);
  }

  size_t Size() {
    if (!initialised_) return 0;
    Lock hold(&lock_);
    return items_.size();
  }

  // Deletes every item still queued and releases the lock and conditions; EINVAL when
  // not initialised, else the result of destroying the lock.
  int Destroy() {
    if (!initialised_) return EINVAL;
    {
      Lock hold(&lock_);
      for (T* item : items_) delete item;
      items_.clear();
    }
    int result = pthread_mutex_destroy(&lock_);
    pthread_cond_destroy(&notEmpty_);
    pthread_cond_destroy(&notFull_);
    initialised_ = false;
    return result;
  }

 private:
  class Lock {
   public:
    explicit Lock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~Lock() { pthread_mutex_unlock(mutex_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pthread_mutex_t* mutex_;
  };

  // Under the lock, with an item queued.
  void TakeFront(T*& item) {
    size_t count = items_.size();
    item = items_.front();
    items_.pop_front();
    // Markers may take the queue beyond its capacity; a producer waits for room as soon
    // as it reaches capacity, so any pop from there on may make room for it.
    if (count + kept_ >= capacity_) pthread_cond_broadcast(&notFull_);
  }

  // Condition deadlines are on the realtime clock, the default of pthread conditions.
  static struct timespec OneSecondFromNow() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + 1;
    deadline.tv_nsec = static_cast<long>(now.tv_usec) * 1000;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
  }

  uint32_t capacity_ = 0;
  bool initialised_ = false;
  pthread_mutex_t lock_;
  pthread_cond_t notEmpty_;
  pthread_cond_t notFull_;
  std::deque<T*> items_;
  uint32_t kept_ = 0;  // items popped by TryPop and not yet released
};

}  // namespace orv

#endif  // ORV_TRANSFER_BLOCKING_QUEUE_H_
