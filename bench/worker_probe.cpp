#include "worker_probe.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELMOR_BENCH_PROBE 0
#else
#define PELMOR_BENCH_PROBE 1
#endif

#if PELMOR_BENCH_PROBE

#include <dlfcn.h>
#include <errno.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <time.h>

#include <array>
#include <atomic>
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

constexpr std::size_t span_capacity = 65536;
std::array<pelmor_lusk::bench::CallSpan, span_capacity> g_spans{};
std::atomic<std::uint64_t> g_span_count{0};

std::uint64_t raw_ns() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
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
  if (request != SPI_IOC_MESSAGE(3)) return next_ioctl(fd, request, arg);
  const std::uint64_t before = raw_ns();
  const int result = next_ioctl(fd, request, arg);
  const std::uint64_t after = raw_ns();
  const std::uint64_t n = g_span_count.load(std::memory_order_relaxed);
  if (n < span_capacity) {
    g_spans[n] = {before, after};
    g_span_count.store(n + 1, std::memory_order_release);
  }
  return result;
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

bool probe_available() noexcept { return true; }

ThreadAllocations thread_allocations() noexcept { return {t_outside, t_inside}; }

// Called only while the library is stopped, so no message is in flight.
std::vector<CallSpan> take_snapshot_spans() {
  const std::uint64_t n = g_span_count.load(std::memory_order_acquire);
  std::vector<CallSpan> out(g_spans.begin(), g_spans.begin() + static_cast<std::ptrdiff_t>(n));
  g_span_count.store(0, std::memory_order_release);
  return out;
}

}  // namespace pelmor_lusk::bench

#else

namespace pelmor_lusk::bench {

bool probe_available() noexcept { return false; }

ThreadAllocations thread_allocations() noexcept { return {}; }

std::vector<CallSpan> take_snapshot_spans() { return {}; }

}  // namespace pelmor_lusk::bench

#endif
