#include "alloc_counter.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELMOR_BENCH_COUNT_ALLOCATIONS 0
#else
#define PELMOR_BENCH_COUNT_ALLOCATIONS 1
#endif

#if PELMOR_BENCH_COUNT_ALLOCATIONS

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* ptr, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* ptr);
}

namespace {

// Trivially initialised, so reading them needs no allocation and no guard.
thread_local std::uint64_t t_outside = 0;
thread_local std::uint64_t t_inside = 0;
thread_local int t_device_depth = 0;

inline void count_one() noexcept {
  if (t_device_depth > 0) {
    ++t_inside;
  } else {
    ++t_outside;
  }
}

using ioctl_fn = int (*)(int, unsigned long, ...);
using poll_fn = int (*)(struct pollfd*, nfds_t, int);
using ppoll_fn = int (*)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
using read_fn = ssize_t (*)(int, void*, std::size_t);

// The board's entry points (next in the lookup order after this executable),
// resolved before main so that no lookup allocates on a measured thread.
ioctl_fn next_ioctl = nullptr;
poll_fn next_poll = nullptr;
ppoll_fn next_ppoll = nullptr;
read_fn next_read = nullptr;

__attribute__((constructor)) void resolve_next() {
  next_ioctl = reinterpret_cast<ioctl_fn>(::dlsym(RTLD_NEXT, "ioctl"));
  next_poll = reinterpret_cast<poll_fn>(::dlsym(RTLD_NEXT, "poll"));
  next_ppoll = reinterpret_cast<ppoll_fn>(::dlsym(RTLD_NEXT, "ppoll"));
  next_read = reinterpret_cast<read_fn>(::dlsym(RTLD_NEXT, "read"));
}

struct DeviceCall {
  DeviceCall() noexcept { ++t_device_depth; }
  ~DeviceCall() { --t_device_depth; }
  DeviceCall(const DeviceCall&) = delete;
  DeviceCall& operator=(const DeviceCall&) = delete;
};

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  count_one();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  count_one();
  return __libc_calloc(count, size);
}

void* realloc(void* ptr, std::size_t size) {
  count_one();
  return __libc_realloc(ptr, size);
}

void free(void* ptr) { __libc_free(ptr); }

void* memalign(std::size_t alignment, std::size_t size) {
  count_one();
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  count_one();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  count_one();
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  DeviceCall guard;
  if (next_ioctl == nullptr) resolve_next();
  return next_ioctl(fd, request, arg);
}

int poll(struct pollfd* fds, nfds_t n, int timeout) {
  DeviceCall guard;
  if (next_poll == nullptr) resolve_next();
  return next_poll(fds, n, timeout);
}

int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask) {
  DeviceCall guard;
  if (next_ppoll == nullptr) resolve_next();
  return next_ppoll(fds, n, timeout, sigmask);
}

ssize_t read(int fd, void* buf, std::size_t count) {
  DeviceCall guard;
  if (next_read == nullptr) resolve_next();
  return next_read(fd, buf, count);
}

}  // extern "C"

namespace pelmor_lusk::bench {

bool allocation_counting_available() noexcept { return true; }

ThreadAllocations thread_allocations() noexcept { return {t_outside, t_inside}; }

}  // namespace pelmor_lusk::bench

#else

namespace pelmor_lusk::bench {

bool allocation_counting_available() noexcept { return false; }

ThreadAllocations thread_allocations() noexcept { return {}; }

}  // namespace pelmor_lusk::bench

#endif
