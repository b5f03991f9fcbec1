#include "backup/mutex.h"

namespace orv {

Mutex::Mutex(bool recursive) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  if (recursive) pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex() { pthread_mutex_destroy(&mutex_); }

}  // namespace orv
