// Guard objects: the counting Semaphore that protects the crypto device and
// each CRL table slot, and the Mutex behind the library's other guards.
//
// Whether these take real locks is decided when the library is built (the
// QUILLON_REAL_LOCKS option). In the default build acquire/release and
// lock/unlock do nothing, and callers serialise every call that changes
// process-wide state themselves. The class layout is the same in both builds,
// so applications compiled against this header work with either library.
//
// None of these objects is recursive: a thread that already holds a guard must
// not acquire it again.
#pragma once

#include "quillon32/export.h"

class QUILLON32_API Semaphore {
 public:
  // A semaphore with |count| free places (1: one holder at a time).
  explicit Semaphore(unsigned count = 1);
  ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Takes a place, waiting for one in a locking build. A failure of the
  // underlying lock ends the process: carrying on unguarded would be worse.
  void acquire() noexcept;
  // Gives a place back.
  void release() noexcept;

  // True when this build's guards take real locks.
  static bool locking() noexcept;

 private:
  struct Impl;
  Impl* impl_;  // null in a build whose guards take no lock
};

class QUILLON32_API Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() noexcept;
  void unlock() noexcept;

 private:
  struct Impl;
  Impl* impl_;  // null in a build whose guards take no lock
};

// Holds a Semaphore place for a scope. A null semaphore is no guard at all.
class SemaphoreGuard {
 public:
  explicit SemaphoreGuard(Semaphore* semaphore) noexcept : semaphore_(semaphore) {
    if (semaphore_) semaphore_->acquire();
  }
  ~SemaphoreGuard() {
    if (semaphore_) semaphore_->release();
  }
  SemaphoreGuard(const SemaphoreGuard&) = delete;
  SemaphoreGuard& operator=(const SemaphoreGuard&) = delete;

 private:
  Semaphore* semaphore_;
};

// Holds a Mutex for a scope. A null mutex is no guard at all.
class MutexGuard {
 public:
  explicit MutexGuard(Mutex* mutex) noexcept : mutex_(mutex) {
    if (mutex_) mutex_->lock();
  }
  ~MutexGuard() {
    if (mutex_) mutex_->unlock();
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex* mutex_;
};
