// The entry points that wait. None waits under the board's lock: a spidev
// read or write holds the caller until its message has taken its time, and a
// line read or a poll looks under the lock, then waits in the real poll on the
// line's pipe (and the caller's own descriptors) until the next modelled
// instant at the latest, and looks again.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "board.hpp"
#include "monotonic_hold.hpp"
#include "real.hpp"

namespace pelmor_vboard::detail {

ssize_t Board::spi_read_write(int fd, const void* tx, void* rx, std::size_t count) {
  const std::uint64_t start = raw_now();
  std::uint64_t end = 0;
  int result = 0;
  {
    Guard lk(mu_);
    ensure_initialised();
    if (rx != nullptr) ++counters.reads;
    auto it = nodes_.find(fd);
    if (it == nodes_.end()) return -EBADF;
    if (it->second.generation != generation) return -ESHUTDOWN;
    if (count > spidev_bufsiz) return -EMSGSIZE;
    advance_to(start);
    spi_ioc_transfer x{};
    x.tx_buf = reinterpret_cast<std::uintptr_t>(tx);
    x.rx_buf = reinterpret_cast<std::uintptr_t>(rx);
    x.len = static_cast<std::uint32_t>(count);
    result = count == 0 ? 0 : spi_message(&x, 1, start, end);
  }
  if (end > start) wait_until_raw(end);
  return result;
}

ssize_t Board::read_line(int fd, void* buf, std::size_t count) {
  if (count < sizeof(gpio_v2_line_event)) return -EINVAL;
  bool counted = false;
  for (;;) {
    {
      Guard lk(mu_);
      ensure_initialised();
      if (!counted) ++counters.reads;
      counted = true;
      auto it = nodes_.find(fd);
      if (it == nodes_.end()) return -EBADF;
      if (it->second.generation != generation) return -ENODEV;
      if (const auto error = faults.line_read_error()) return -*error;
      advance_to(raw_now());
      const ssize_t got = gpio_.read_events(fd, buf, count);
      if (got > 0) {
        if (const auto stretch = faults.bridge_stretch_ns()) hold_next_monotonic_reads(*stretch);
        return got;
      }
      const int fl = ::fcntl(fd, F_GETFL);
      if (fl >= 0 && (fl & O_NONBLOCK)) return -EAGAIN;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, nullptr, nullptr) < 0) return -errno;
  }
}

int Board::poll(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout, const sigset_t* sigmask) {
  const std::uint64_t begin = raw_now();
  const std::uint64_t deadline = timeout == nullptr
                                     ? never
                                     : begin + static_cast<std::uint64_t>(timeout->tv_sec) * 1000000000ULL +
                                           static_cast<std::uint64_t>(timeout->tv_nsec);
  pollfd local[16];
  std::vector<pollfd> heap;
  pollfd* copy = local;
  if (nfds > 16) {
    heap.resize(nfds);
    copy = heap.data();
  }
  std::vector<short> synthetic_heap;
  short synthetic_local[16];
  short* synthetic = nfds > 16 ? (synthetic_heap.resize(nfds), synthetic_heap.data()) : synthetic_local;
  bool counted = false;
  for (;;) {
    int ready = 0;
    std::uint64_t next = never;
    const std::uint64_t now = raw_now();
    {
      Guard lk(mu_);
      ensure_initialised();
      if (!counted) ++counters.polls;
      counted = true;
      advance_to(now);
      for (nfds_t i = 0; i < nfds; ++i) {
        copy[i] = fds[i];
        copy[i].revents = 0;
        synthetic[i] = -1;
        const std::uint8_t kind = fd_kind(fds[i].fd);
        auto it = nodes_.find(fds[i].fd);
        const bool stale = it == nodes_.end() || it->second.generation != generation;
        if (kind == kind_spi || kind == kind_chip || (kind == kind_line && stale)) {
          // spidev is always ready; a chip has nothing to read; each hangs up
          // with an error once orphaned, as a line does once its chip is gone.
          short rev = 0;
          if (kind == kind_spi) {
            rev = static_cast<short>(fds[i].events & (POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM));
          }
          if (stale) rev = static_cast<short>(rev | POLLERR | POLLHUP);
          synthetic[i] = rev;
          copy[i].fd = -1;
          if (rev != 0) ++ready;
        } else if (kind == kind_line) {
          // The real pipe answers; wake in time to make the next event visible.
          next = std::min(next, gpio_.pending_due(fds[i].fd));
        }
      }
    }
    std::uint64_t wake = std::min(deadline, next);
    timespec wait{};
    const timespec* wait_ptr = &wait;
    if (ready > 0) {
      wait = timespec{0, 0};
    } else if (wake == never) {
      wait_ptr = nullptr;
    } else {
      const std::uint64_t left = wake > now ? wake - now : 0;
      wait = timespec{static_cast<time_t>(left / 1000000000ULL), static_cast<long>(left % 1000000000ULL)};
    }
    const int r = real_ppoll(copy, nfds, wait_ptr, sigmask);
    if (r < 0) return -1;
    const int total = r + ready;
    if (total > 0 || ready > 0 || raw_now() >= deadline) {
      for (nfds_t i = 0; i < nfds; ++i) fds[i].revents = synthetic[i] >= 0 ? synthetic[i] : copy[i].revents;
      return total;
    }
  }
}

}  // namespace pelmor_vboard::detail
