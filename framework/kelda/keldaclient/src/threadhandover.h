#pragma once

// Tells a thread checker about an ordering between threads that exists but
// that it cannot see, because it is made inside a library not built for it
// (Qt's posted events, QThread::quit() and the deleteLater() that follows).
//
// What one thread did before release(key) is taken to happen before what
// another does after a later acquire(key) with the same key. A null key
// stands for nothing. In builds without ThreadSanitizer both do nothing and
// cost nothing.
//
// Internal: not installed with the library's headers.

#if defined(__SANITIZE_THREAD__)
#define KELDA_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KELDA_THREAD_SANITIZER 1
#endif
#endif

#ifdef KELDA_THREAD_SANITIZER
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#endif

namespace Kelda {
namespace ThreadHandOver {

inline void release(const void *key)
{
#ifdef KELDA_THREAD_SANITIZER
    if (key)
        __tsan_release(const_cast<void *>(key));
#else
    (void)key;
#endif
}

inline void acquire(const void *key)
{
#ifdef KELDA_THREAD_SANITIZER
    if (key)
        __tsan_acquire(const_cast<void *>(key));
#else
    (void)key;
#endif
}

} // namespace ThreadHandOver
} // namespace Kelda
