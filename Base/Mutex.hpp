#pragma once

#include <mutex>

// A mutex that clang's thread-safety analysis can follow
// (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html). It checks GUARDED_BY only on an annotated
// capability, so std::mutex alone would pass unseen.
#if defined(__clang__)
#define QUENZEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QUENZEL_THREAD_ANNOTATION(x)
#endif
#define CAPABILITY(x) QUENZEL_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY QUENZEL_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) QUENZEL_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) QUENZEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) QUENZEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QUENZEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace quenzel {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds a Mutex for the rest of the scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace quenzel
