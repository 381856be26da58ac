// Locks a POSIX mutex until the end of a scope.
#ifndef BASE_SCOPED_LOCK_H
#define BASE_SCOPED_LOCK_H

#include <pthread.h>

namespace corvo {

class ScopedLock {
  public:
    // Blocks until the mutex is free. The mutex must outlive the lock and must not be held by the
    // calling thread already.
    explicit ScopedLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~ScopedLock() { pthread_mutex_unlock(&mutex_); }

    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

}  // namespace corvo

#endif  // BASE_SCOPED_LOCK_H
