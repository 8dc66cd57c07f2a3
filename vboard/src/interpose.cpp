// The libc entry points the board answers for. Each checks cheaply whether the
// call concerns an emulated node and otherwise goes straight to the next
// definition (libc, or whatever comes after us), leaving errno as that sets it.
// The definitions carry the libc names through asm labels so that no glibc
// prototype (with or without its noexcept) has to be matched.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "board.hpp"
#include "environment.hpp"
#include "monotonic_hold.hpp"
#include "real.hpp"

#define PV_EXPORT extern "C" __attribute__((visibility("default")))

using pelmor_vboard::detail::Board;
using pelmor_vboard::detail::board;
using pelmor_vboard::detail::fd_kind;
using pelmor_vboard::detail::kind_chip;
using pelmor_vboard::detail::kind_line;
using pelmor_vboard::detail::kind_none;
using pelmor_vboard::detail::kind_spi;

extern "C" [[noreturn]] void __chk_fail(void);

namespace {

// Resolved on first use; a constant-initialised atomic needs no guard, so this is
// safe even when a sanitizer runtime calls in before our constructors ran.
#define PV_REAL(name, ret, params)                                                   \
  using name##_fn = ret(*) params;                                                   \
  name##_fn next_##name() {                                                          \
    static std::atomic<name##_fn> fn{nullptr};                                       \
    name##_fn f = fn.load(std::memory_order_acquire);                                \
    if (f == nullptr) {                                                              \
      f = reinterpret_cast<name##_fn>(::dlsym(RTLD_NEXT, #name));                    \
      fn.store(f, std::memory_order_release);                                        \
    }                                                                                \
    return f;                                                                        \
  }

PV_REAL(stat, int, (const char*, struct stat*))
PV_REAL(lstat, int, (const char*, struct stat*))
PV_REAL(fstatat, int, (int, const char*, struct stat*, int))
PV_REAL(open, int, (const char*, int, ...))
PV_REAL(open64, int, (const char*, int, ...))
PV_REAL(openat, int, (int, const char*, int, ...))
PV_REAL(openat64, int, (int, const char*, int, ...))
PV_REAL(__open_2, int, (const char*, int))
PV_REAL(__open64_2, int, (const char*, int))
PV_REAL(__openat_2, int, (int, const char*, int))
PV_REAL(__openat64_2, int, (int, const char*, int))
PV_REAL(close, int, (int))
PV_REAL(ioctl, int, (int, unsigned long, ...))
PV_REAL(read, ssize_t, (int, void*, size_t))
PV_REAL(__read_chk, ssize_t, (int, void*, size_t, size_t))
PV_REAL(write, ssize_t, (int, const void*, size_t))
PV_REAL(poll, int, (struct pollfd*, nfds_t, int))
PV_REAL(ppoll, int, (struct pollfd*, nfds_t, const struct timespec*, const sigset_t*))
PV_REAL(__poll_chk, int, (struct pollfd*, nfds_t, int, size_t))
PV_REAL(__ppoll_chk, int, (struct pollfd*, nfds_t, const struct timespec*, const sigset_t*, size_t))
PV_REAL(opendir, DIR*, (const char*))
PV_REAL(fdopendir, DIR*, (int))
PV_REAL(readdir, struct dirent*, (DIR*))
PV_REAL(readdir64, struct dirent64*, (DIR*))
PV_REAL(readdir_r, int, (DIR*, struct dirent*, struct dirent**))
PV_REAL(readdir64_r, int, (DIR*, struct dirent64*, struct dirent64**))
PV_REAL(rewinddir, void, (DIR*))
PV_REAL(closedir, int, (DIR*))
PV_REAL(dup2, int, (int, int))
PV_REAL(dup3, int, (int, int, int))
PV_REAL(clock_gettime, int, (clockid_t, struct timespec*))

struct MonotonicHold {
  std::uint32_t reads_left = 0;
  std::uint64_t ns = 0;
};
constinit thread_local MonotonicHold monotonic_hold{};

void serve_monotonic_hold() {
  MonotonicHold& hold = monotonic_hold;
  if (hold.reads_left == 0) return;
  --hold.reads_left;
  const int saved = errno;
  struct timespec wait{static_cast<time_t>(hold.ns / 1000000000ULL), static_cast<long>(hold.ns % 1000000000ULL)};
  struct timespec left{};
  while (::nanosleep(&wait, &left) != 0 && errno == EINTR) wait = left;
  errno = saved;
}

// ---- /dev resolution ---------------------------------------------------------------

bool same_as_dev(const struct stat& st) {
  static std::atomic<bool> known{false};
  static std::atomic<dev_t> dev{0};
  static std::atomic<ino_t> ino{0};
  if (!known.load(std::memory_order_acquire)) {
    struct stat d{};
    if (next_stat()("/dev", &d) != 0) return false;
    dev.store(d.st_dev);
    ino.store(d.st_ino);
    known.store(true, std::memory_order_release);
  }
  return st.st_dev == dev.load() && st.st_ino == ino.load();
}

bool board_pattern(const char* name) {
  return std::strncmp(name, "gpiochip", 8) == 0 || std::strncmp(name, "spidev", 6) == 0;
}

// The entry name when (dirfd, path) names something directly inside /dev.
const char* dev_entry(int dirfd, const char* path) {
  if (path == nullptr) return nullptr;
  if (std::strncmp(path, "/dev/", 5) == 0) {
    const char* name = path + 5;
    while (*name == '/') ++name;
    if (*name == '\0' || std::strchr(name, '/') != nullptr) return nullptr;
    return name;
  }
  if (path[0] == '/' || std::strchr(path, '/') != nullptr || !board_pattern(path)) return nullptr;
  struct stat st{};
  const int saved = errno;
  const int rc = dirfd == AT_FDCWD ? next_stat()(".", &st) : ::fstat(dirfd, &st);
  errno = saved;
  return rc == 0 && same_as_dev(st) ? path : nullptr;
}

bool is_dev_dir(const char* path) {
  if (path == nullptr) return false;
  if (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0) return true;
  if (std::strstr(path, "dev") == nullptr) return false;
  struct stat st{};
  const int saved = errno;
  const int rc = next_stat()(path, &st);
  errno = saved;
  return rc == 0 && same_as_dev(st);
}

// Answers a call on an emulated node: `answer(board, kind, chip)` runs under the
// board's lock and gives its result or -errno; a host node the board hides fails with
// ENOENT. Returns false when (dirfd, path) is not the board's; else `result` holds the
// answer or -1 with errno set (errno is left alone on success).
template <typename Answer>
bool answer_on_node(int dirfd, const char* path, int& result, Answer&& answer) {
  const char* name = dev_entry(dirfd, path);
  if (name == nullptr) return false;
  const int saved = errno;
  Board& b = board();
  pelmor_vboard::detail::Guard lk(b.mutex());
  b.ensure_initialised();
  std::size_t chip = 0;
  const std::uint8_t kind = b.node_for_name(name, chip);
  if (kind == kind_none && !Board::hides_name(name)) return false;
  const int r = kind == kind_none ? -ENOENT : answer(b, kind, chip);
  errno = r < 0 ? -r : saved;
  result = r < 0 ? -1 : r;
  return true;
}

bool board_open(int dirfd, const char* path, int flags, int& result) {
  return answer_on_node(dirfd, path, result, [flags](Board& b, std::uint8_t kind, std::size_t chip) {
    if ((flags & O_DIRECTORY) != 0) return -ENOTDIR;
    if (kind == kind_chip && b.config.chips[chip].open_errno != 0) return -b.config.chips[chip].open_errno;
    return b.open_node(kind, chip, flags);
  });
}

mode_t mode_arg(int flags, va_list ap) {
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) return static_cast<mode_t>(va_arg(ap, int));
  return 0;
}

// ---- directory listing of /dev ---------------------------------------------------------

struct DirState {
  std::vector<std::pair<std::string, unsigned char>> entries;
  std::size_t next = 0;
  struct dirent ent{};
  struct dirent64 ent64{};
};

std::atomic<int> g_open_dirs{0};

std::mutex& dirs_mutex() {
  static std::mutex* m = new std::mutex();
  return *m;
}

std::unordered_map<DIR*, DirState*>& dirs() {
  static auto* m = new std::unordered_map<DIR*, DirState*>();
  return *m;
}

void track_dir(DIR* d) {
  auto* state = new DirState();
  state->entries.emplace_back(".", DT_DIR);
  state->entries.emplace_back("..", DT_DIR);
  {
    Board& b = board();
    pelmor_vboard::detail::Guard lk(b.mutex());
    b.ensure_initialised();
    for (auto& e : b.dev_entries()) state->entries.push_back(e);
  }
  pelmor_vboard::detail::Guard lk(dirs_mutex());
  auto [it, fresh] = dirs().emplace(d, state);
  if (!fresh) {
    delete it->second;
    it->second = state;
  } else {
    g_open_dirs.fetch_add(1);
  }
}

DirState* dir_state(DIR* d) {
  if (g_open_dirs.load(std::memory_order_acquire) == 0) return nullptr;
  pelmor_vboard::detail::Guard lk(dirs_mutex());
  auto it = dirs().find(d);
  return it == dirs().end() ? nullptr : it->second;
}

void untrack_dir(DIR* d) {
  if (g_open_dirs.load(std::memory_order_acquire) == 0) return;
  pelmor_vboard::detail::Guard lk(dirs_mutex());
  auto it = dirs().find(d);
  if (it == dirs().end()) return;
  delete it->second;
  dirs().erase(it);
  g_open_dirs.fetch_sub(1);
}

template <typename Entry>
void fill(Entry& e, const std::string& name, unsigned char type, std::size_t index) {
  e = Entry{};
  e.d_ino = static_cast<decltype(e.d_ino)>(0x7B0A0000 + index);
  e.d_off = static_cast<decltype(e.d_off)>(index + 1);
  e.d_reclen = sizeof(Entry);
  e.d_type = type;
  std::strncpy(e.d_name, name.c_str(), sizeof e.d_name - 1);
}

bool skip_host_entry(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || Board::hides_name(name);
}

// The board's entries first, then the host's own, minus the names it owns.
template <typename Entry>
Entry* board_readdir_into(DIR* d, DirState* s, Entry& slot, Entry* (*next_host)(DIR*)) {
  if (s->next < s->entries.size()) {
    const auto& [name, type] = s->entries[s->next];
    fill(slot, name, type, s->next);
    ++s->next;
    return &slot;
  }
  for (;;) {
    Entry* e = next_host(d);
    if (e == nullptr || !skip_host_entry(e->d_name)) return e;
  }
}

struct dirent* board_readdir(DIR* d, DirState* s) { return board_readdir_into(d, s, s->ent, next_readdir()); }

struct dirent64* board_readdir64(DIR* d, DirState* s) {
  return board_readdir_into(d, s, s->ent64, next_readdir64());
}

bool any_emulated(const struct pollfd* fds, nfds_t n) {
  for (nfds_t i = 0; i < n; ++i) {
    if (fd_kind(fds[i].fd) != kind_none) return true;
  }
  return false;
}

int board_poll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask) {
  const int saved = errno;
  const int r = board().poll(fds, n, timeout, sigmask);
  if (r >= 0) errno = saved;
  return r;
}

int board_poll_ms(struct pollfd* fds, nfds_t n, int timeout_ms) {
  if (timeout_ms < 0) return board_poll(fds, n, nullptr, nullptr);
  const struct timespec ts{timeout_ms / 1000, static_cast<long>(timeout_ms % 1000) * 1000000L};
  return board_poll(fds, n, &ts, nullptr);
}

ssize_t board_read(int fd, std::uint8_t kind, void* buf, size_t count) {
  const int saved = errno;
  ssize_t r = 0;
  if (kind == kind_line) {
    r = board().read_line(fd, buf, count);
  } else if (kind == kind_spi) {
    r = board().spi_read_write(fd, nullptr, buf, count);
  } else {
    return pelmor_vboard::detail::real_read(fd, buf, count);  // chip: no watch events, ever
  }
  if (r < 0) {
    errno = static_cast<int>(-r);
    return -1;
  }
  errno = saved;
  return r;
}

void release_if_board(int fd) {
  if (fd_kind(fd) == kind_none) return;
  Board& b = board();
  pelmor_vboard::detail::Guard lk(b.mutex());
  b.release_fd(fd);
}

}  // namespace

// ---- what the board itself uses underneath ----------------------------------------------

namespace pelmor_vboard::detail {

ssize_t real_read(int fd, void* buf, std::size_t count) {
  if (auto f = next_read()) return f(fd, buf, count);
  return ::syscall(SYS_read, fd, buf, count);
}

ssize_t real_write(int fd, const void* buf, std::size_t count) {
  if (auto f = next_write()) return f(fd, buf, count);
  return ::syscall(SYS_write, fd, buf, count);
}

int real_close(int fd) {
  if (auto f = next_close()) return f(fd);
  return static_cast<int>(::syscall(SYS_close, fd));
}

int real_ppoll(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout, const sigset_t* sigmask) {
  if (auto f = next_ppoll()) return f(fds, nfds, timeout, sigmask);
  return static_cast<int>(::syscall(SYS_ppoll, fds, nfds, timeout, sigmask, _NSIG / 8));
}

void hold_next_monotonic_reads(std::uint64_t ns) noexcept { monotonic_hold = MonotonicHold{2, ns}; }

}  // namespace pelmor_vboard::detail

// ---- clocks -------------------------------------------------------------------------------

PV_EXPORT int pv_clock_gettime(clockid_t id, struct timespec* ts) __asm__("clock_gettime");
int pv_clock_gettime(clockid_t id, struct timespec* ts) {
  const auto f = next_clock_gettime();
  const int r = f != nullptr ? f(id, ts) : static_cast<int>(::syscall(SYS_clock_gettime, id, ts));
  if (id == CLOCK_MONOTONIC) serve_monotonic_hold();
  return r;
}

// ---- open ---------------------------------------------------------------------------------

PV_EXPORT int pv_open(const char* path, int flags, ...) __asm__("open");
PV_EXPORT int pv_open64(const char* path, int flags, ...) __asm__("open64");
PV_EXPORT int pv_openat(int dirfd, const char* path, int flags, ...) __asm__("openat");
PV_EXPORT int pv_openat64(int dirfd, const char* path, int flags, ...) __asm__("openat64");
PV_EXPORT int pv_open_2(const char* path, int flags) __asm__("__open_2");
PV_EXPORT int pv_open64_2(const char* path, int flags) __asm__("__open64_2");
PV_EXPORT int pv_openat_2(int dirfd, const char* path, int flags) __asm__("__openat_2");
PV_EXPORT int pv_openat64_2(int dirfd, const char* path, int flags) __asm__("__openat64_2");

int pv_open(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_arg(flags, ap);
  va_end(ap);
  int fd = -1;
  if (board_open(AT_FDCWD, path, flags, fd)) return fd;
  if (auto f = next_open()) return f(path, flags, mode);
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int pv_open64(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_arg(flags, ap);
  va_end(ap);
  int fd = -1;
  if (board_open(AT_FDCWD, path, flags, fd)) return fd;
  if (auto f = next_open64()) return f(path, flags, mode);
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

int pv_openat(int dirfd, const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_arg(flags, ap);
  va_end(ap);
  int fd = -1;
  if (board_open(dirfd, path, flags, fd)) return fd;
  if (auto f = next_openat()) return f(dirfd, path, flags, mode);
  return static_cast<int>(::syscall(SYS_openat, dirfd, path, flags, mode));
}

int pv_openat64(int dirfd, const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = mode_arg(flags, ap);
  va_end(ap);
  int fd = -1;
  if (board_open(dirfd, path, flags, fd)) return fd;
  if (auto f = next_openat64()) return f(dirfd, path, flags, mode);
  return static_cast<int>(::syscall(SYS_openat, dirfd, path, flags | O_LARGEFILE, mode));
}

int pv_open_2(const char* path, int flags) {
  int fd = -1;
  if (board_open(AT_FDCWD, path, flags, fd)) return fd;
  return next___open_2()(path, flags);
}

int pv_open64_2(const char* path, int flags) {
  int fd = -1;
  if (board_open(AT_FDCWD, path, flags, fd)) return fd;
  return next___open64_2()(path, flags);
}

int pv_openat_2(int dirfd, const char* path, int flags) {
  int fd = -1;
  if (board_open(dirfd, path, flags, fd)) return fd;
  return next___openat_2()(dirfd, path, flags);
}

int pv_openat64_2(int dirfd, const char* path, int flags) {
  int fd = -1;
  if (board_open(dirfd, path, flags, fd)) return fd;
  return next___openat64_2()(dirfd, path, flags);
}

// ---- stat ---------------------------------------------------------------------------------

// An emulated node stats as a character device the way a kernel without udev rules
// leaves it: root:root, mode 0600.
bool board_stat(int dirfd, const char* path, struct stat* out, int& result) {
  if (out == nullptr) return false;
  return answer_on_node(dirfd, path, result, [out](Board&, std::uint8_t kind, std::size_t chip) {
    std::memset(out, 0, sizeof *out);
    out->st_mode = S_IFCHR | S_IRUSR | S_IWUSR;
    out->st_nlink = 1;
    out->st_ino = kind == kind_spi ? 0x5100 : 0x5200 + chip;
    out->st_rdev = kind == kind_spi ? makedev(153, 0) : makedev(254, static_cast<unsigned>(chip));
    out->st_blksize = 4096;
    return 0;
  });
}

PV_EXPORT int pv_stat(const char* path, struct stat* out) __asm__("stat");
PV_EXPORT int pv_stat64(const char* path, struct stat* out) __asm__("stat64");
PV_EXPORT int pv_lstat(const char* path, struct stat* out) __asm__("lstat");
PV_EXPORT int pv_lstat64(const char* path, struct stat* out) __asm__("lstat64");
PV_EXPORT int pv_fstatat(int dirfd, const char* path, struct stat* out, int flags) __asm__("fstatat");
PV_EXPORT int pv_fstatat64(int dirfd, const char* path, struct stat* out, int flags) __asm__("fstatat64");
// The 64-bit variants share the layout on every LP64 target we build for.
static_assert(sizeof(struct stat) == sizeof(struct stat64));

int pv_stat(const char* path, struct stat* out) {
  int rc = -1;
  if (board_stat(AT_FDCWD, path, out, rc)) return rc;
  return next_stat()(path, out);
}

int pv_stat64(const char* path, struct stat* out) { return pv_stat(path, out); }

int pv_lstat(const char* path, struct stat* out) {
  int rc = -1;
  if (board_stat(AT_FDCWD, path, out, rc)) return rc;
  return next_lstat()(path, out);
}

int pv_lstat64(const char* path, struct stat* out) { return pv_lstat(path, out); }

int pv_fstatat(int dirfd, const char* path, struct stat* out, int flags) {
  int rc = -1;
  if ((flags & AT_EMPTY_PATH) == 0 && board_stat(dirfd, path, out, rc)) return rc;
  return next_fstatat()(dirfd, path, out, flags);
}

int pv_fstatat64(int dirfd, const char* path, struct stat* out, int flags) { return pv_fstatat(dirfd, path, out, flags); }

// ---- close, dup ---------------------------------------------------------------------------

PV_EXPORT int pv_close(int fd) __asm__("close");
PV_EXPORT int pv_dup2(int oldfd, int newfd) __asm__("dup2");
PV_EXPORT int pv_dup3(int oldfd, int newfd, int flags) __asm__("dup3");

int pv_close(int fd) {
  if (fd_kind(fd) != kind_none) {
    const int saved = errno;
    release_if_board(fd);
    errno = saved;
  }
  return pelmor_vboard::detail::real_close(fd);
}

int pv_dup2(int oldfd, int newfd) {
  if (oldfd != newfd) release_if_board(newfd);  // the old node is closed underneath
  if (auto f = next_dup2()) return f(oldfd, newfd);
  return static_cast<int>(::syscall(SYS_dup3, oldfd, newfd, 0));
}

int pv_dup3(int oldfd, int newfd, int flags) {
  if (oldfd != newfd) release_if_board(newfd);
  if (auto f = next_dup3()) return f(oldfd, newfd, flags);
  return static_cast<int>(::syscall(SYS_dup3, oldfd, newfd, flags));
}

// ---- ioctl --------------------------------------------------------------------------------

PV_EXPORT int pv_ioctl(int fd, unsigned long request, ...) __asm__("ioctl");

int pv_ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (fd_kind(fd) == kind_none) {
    if (auto f = next_ioctl()) return f(fd, request, arg);
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
  }
  const int saved = errno;
  const int r = board().ioctl(fd, request, arg);
  if (r < 0) {
    errno = -r;
    return -1;
  }
  errno = saved;
  return r;
}

// ---- read, write ----------------------------------------------------------------------------

PV_EXPORT ssize_t pv_read(int fd, void* buf, size_t count) __asm__("read");
PV_EXPORT ssize_t pv_read_chk(int fd, void* buf, size_t count, size_t buflen) __asm__("__read_chk");
PV_EXPORT ssize_t pv_write(int fd, const void* buf, size_t count) __asm__("write");

ssize_t pv_read(int fd, void* buf, size_t count) {
  const std::uint8_t kind = fd_kind(fd);
  if (kind == kind_none) return pelmor_vboard::detail::real_read(fd, buf, count);
  return board_read(fd, kind, buf, count);
}

ssize_t pv_read_chk(int fd, void* buf, size_t count, size_t buflen) {
  if (count > buflen) __chk_fail();
  const std::uint8_t kind = fd_kind(fd);
  if (kind == kind_none) return next___read_chk()(fd, buf, count, buflen);
  return board_read(fd, kind, buf, count);
}

ssize_t pv_write(int fd, const void* buf, size_t count) {
  const std::uint8_t kind = fd_kind(fd);
  if (kind == kind_none) return pelmor_vboard::detail::real_write(fd, buf, count);
  if (kind != kind_spi) {
    errno = EINVAL;  // neither a chip nor a line request can be written
    return -1;
  }
  const int saved = errno;
  const ssize_t r = board().spi_read_write(fd, buf, nullptr, count);
  if (r < 0) {
    errno = static_cast<int>(-r);
    return -1;
  }
  errno = saved;
  return r;
}

// ---- poll -----------------------------------------------------------------------------------

PV_EXPORT int pv_poll(struct pollfd* fds, nfds_t n, int timeout) __asm__("poll");
PV_EXPORT int pv_ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask)
    __asm__("ppoll");
PV_EXPORT int pv_poll_chk(struct pollfd* fds, nfds_t n, int timeout, size_t fdslen) __asm__("__poll_chk");
PV_EXPORT int pv_ppoll_chk(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask,
                           size_t fdslen) __asm__("__ppoll_chk");

int pv_poll(struct pollfd* fds, nfds_t n, int timeout) {
  if (!any_emulated(fds, n)) {
    if (auto f = next_poll()) return f(fds, n, timeout);
    struct timespec ts{timeout / 1000, static_cast<long>(timeout % 1000) * 1000000L};
    return pelmor_vboard::detail::real_ppoll(fds, n, timeout < 0 ? nullptr : &ts, nullptr);
  }
  return board_poll_ms(fds, n, timeout);
}

int pv_ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask) {
  if (!any_emulated(fds, n)) return pelmor_vboard::detail::real_ppoll(fds, n, timeout, sigmask);
  return board_poll(fds, n, timeout, sigmask);
}

int pv_poll_chk(struct pollfd* fds, nfds_t n, int timeout, size_t fdslen) {
  if (fdslen / sizeof(*fds) < n) __chk_fail();
  if (!any_emulated(fds, n)) return next___poll_chk()(fds, n, timeout, fdslen);
  return board_poll_ms(fds, n, timeout);
}

int pv_ppoll_chk(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* sigmask,
                 size_t fdslen) {
  if (fdslen / sizeof(*fds) < n) __chk_fail();
  if (!any_emulated(fds, n)) return next___ppoll_chk()(fds, n, timeout, sigmask, fdslen);
  return board_poll(fds, n, timeout, sigmask);
}

// ---- directories ------------------------------------------------------------------------------

PV_EXPORT DIR* pv_opendir(const char* name) __asm__("opendir");
PV_EXPORT DIR* pv_fdopendir(int fd) __asm__("fdopendir");
PV_EXPORT struct dirent* pv_readdir(DIR* d) __asm__("readdir");
PV_EXPORT struct dirent64* pv_readdir64(DIR* d) __asm__("readdir64");
PV_EXPORT int pv_readdir_r(DIR* d, struct dirent* entry, struct dirent** result) __asm__("readdir_r");
PV_EXPORT int pv_readdir64_r(DIR* d, struct dirent64* entry, struct dirent64** result) __asm__("readdir64_r");
PV_EXPORT void pv_rewinddir(DIR* d) __asm__("rewinddir");
PV_EXPORT int pv_closedir(DIR* d) __asm__("closedir");

DIR* pv_opendir(const char* name) {
  DIR* d = next_opendir()(name);
  if (d != nullptr && is_dev_dir(name)) {
    const int saved = errno;
    track_dir(d);
    errno = saved;
  }
  return d;
}

DIR* pv_fdopendir(int fd) {
  DIR* d = next_fdopendir()(fd);
  if (d != nullptr) {
    const int saved = errno;
    struct stat st{};
    if (::fstat(fd, &st) == 0 && same_as_dev(st)) track_dir(d);
    errno = saved;
  }
  return d;
}

struct dirent* pv_readdir(DIR* d) {
  if (DirState* s = dir_state(d)) return board_readdir(d, s);
  return next_readdir()(d);
}

struct dirent64* pv_readdir64(DIR* d) {
  if (DirState* s = dir_state(d)) return board_readdir64(d, s);
  return next_readdir64()(d);
}

// readdir_r on a board listing: the entry is copied out of the board's own buffer.
template <typename Entry>
int board_readdir_r(DIR* d, DirState* s, Entry* entry, Entry** result, Entry* (*next)(DIR*, DirState*)) {
  const int saved = errno;
  errno = 0;
  Entry* e = next(d, s);
  const int error = errno;
  errno = saved;
  if (e == nullptr) {
    *result = nullptr;
    return error;
  }
  std::memcpy(entry, e, sizeof *entry);
  *result = entry;
  return 0;
}

int pv_readdir_r(DIR* d, struct dirent* entry, struct dirent** result) {
  DirState* s = dir_state(d);
  if (s == nullptr) return next_readdir_r()(d, entry, result);
  return board_readdir_r(d, s, entry, result, &board_readdir);
}

int pv_readdir64_r(DIR* d, struct dirent64* entry, struct dirent64** result) {
  DirState* s = dir_state(d);
  if (s == nullptr) return next_readdir64_r()(d, entry, result);
  return board_readdir_r(d, s, entry, result, &board_readdir64);
}

void pv_rewinddir(DIR* d) {
  if (DirState* s = dir_state(d)) s->next = 0;
  next_rewinddir()(d);
}

int pv_closedir(DIR* d) {
  untrack_dir(d);
  return next_closedir()(d);
}
