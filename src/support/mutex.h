#pragma once
// A plain non-recursive lock. Satisfies BasicLockable, so std::lock_guard and std::unique_lock work;
// code that must drop the lock around a blocking call uses unlock()/lock() explicitly.
#include <mutex>

namespace pelmora {

class Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() { m_mutex.lock(); }
  void unlock() { m_mutex.unlock(); }
  bool try_lock() { return m_mutex.try_lock(); }

 private:
  std::mutex m_mutex;
};

using MutexLock = std::lock_guard<Mutex>;

// A copy of a value that `mutex` guards, taken under it: what every locked getter returns.
template <typename T>
T lockedCopy(Mutex& mutex, const T& value) {
  MutexLock lock(mutex);
  return value;
}

}  // namespace pelmora
