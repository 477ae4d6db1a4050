#pragma once
// A mutex that clang's -Wthread-safety can reason about. Every object in this system that has a
// lock has exactly one Mutex, guards only its own fields with it and never calls out while
// holding it.

#include <mutex>

#if defined(__clang__)
#define TW_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TW_THREAD_ANNOTATION(x)
#endif

#define TW_CAPABILITY(x) TW_THREAD_ANNOTATION(capability(x))
#define TW_SCOPED_CAPABILITY TW_THREAD_ANNOTATION(scoped_lockable)
#define TW_GUARDED_BY(x) TW_THREAD_ANNOTATION(guarded_by(x))
#define TW_PT_GUARDED_BY(x) TW_THREAD_ANNOTATION(pt_guarded_by(x))
#define TW_REQUIRES(...) TW_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TW_EXCLUDES(...) TW_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TW_ACQUIRE(...) TW_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TW_RELEASE(...) TW_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TW_NO_THREAD_SAFETY_ANALYSIS TW_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace tarnwick {

class TW_CAPABILITY("mutex") Mutex {
 public:
  void lock() TW_ACQUIRE() { mutex_.lock(); }
  void unlock() TW_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class TW_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TW_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TW_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace tarnwick
