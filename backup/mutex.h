#ifndef ORV_BACKUP_MUTEX_H_
#define ORV_BACKUP_MUTEX_H_

#include <pthread.h>
#include <time.h>

namespace orv {

// A thin wrapper over a pthread mutex. The backup code needs what std::mutex lacks:
// lock results it can log, deadlines on the realtime clock and recursive locking.
class Mutex {
 public:
  explicit Mutex(bool recursive = false);
  virtual ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  int lock() { return pthread_mutex_lock(&mutex_); }
  int unlock() { return pthread_mutex_unlock(&mutex_); }
  // Waits until the absolute realtime `deadline`.
  int timedLock(const struct timespec& deadline) { return pthread_mutex_timedlock(&mutex_, &deadline); }
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

// Holds a Mutex for a scope when the lock succeeded.
class MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) : mutex_(mutex), result_(mutex.lock()) {}
  MutexLock(Mutex& mutex, const struct timespec& deadline) : mutex_(mutex), result_(mutex.timedLock(deadline)) {}
  ~MutexLock() {
    if (result_ == 0) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  bool locked() const { return result_ == 0; }
  int result() const { return result_; }

 private:
  Mutex& mutex_;
  int result_;
};

}  // namespace orv

#endif  // ORV_BACKUP_MUTEX_H_
