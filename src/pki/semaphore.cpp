#include "quillon32/semaphore.h"

#include <climits>
#include <mutex>
#include <semaphore>

// The one place where the build decides whether the guards lock. Without
// QUILLON32_REAL_LOCKS no Impl is ever made and every operation returns at
// once; with it, Impl holds the standard primitive.
#if defined(QUILLON32_REAL_LOCKS)
static constexpr bool kRealLocks = true;
#else
static constexpr bool kRealLocks = false;
#endif

// ---------------------------------------------------------------------------
// Semaphore

struct Semaphore::Impl {
  explicit Impl(unsigned count)
      : places(static_cast<std::ptrdiff_t>(count > static_cast<unsigned>(INT_MAX) ? INT_MAX
                                                                                   : count)) {}
  std::counting_semaphore<INT_MAX> places;
};

Semaphore::Semaphore(unsigned count) : impl_(kRealLocks ? new Impl(count) : nullptr) {}

Semaphore::~Semaphore() { delete impl_; }

void Semaphore::acquire() noexcept {
  if (impl_) impl_->places.acquire();
}

void Semaphore::release() noexcept {
  if (impl_) impl_->places.release();
}

bool Semaphore::locking() noexcept { return kRealLocks; }

// ---------------------------------------------------------------------------
// Mutex

struct Mutex::Impl {
  std::mutex mutex;
};

Mutex::Mutex() : impl_(kRealLocks ? new Impl : nullptr) {}

Mutex::~Mutex() { delete impl_; }

void Mutex::lock() noexcept {
  if (impl_) impl_->mutex.lock();
}

void Mutex::unlock() noexcept {
  if (impl_) impl_->mutex.unlock();
}
