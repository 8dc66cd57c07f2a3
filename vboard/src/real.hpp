// The libc functions underneath the interposed ones, resolved lazily with
// dlsym(RTLD_NEXT); the board's own descriptor traffic goes through these.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/types.h>

#include <cstddef>

namespace pelmor_vboard::detail {

ssize_t real_read(int fd, void* buf, std::size_t count);
ssize_t real_write(int fd, const void* buf, std::size_t count);
int real_close(int fd);
int real_ppoll(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout, const sigset_t* sigmask);

}  // namespace pelmor_vboard::detail
