// Passing a file descriptor along with the bytes of a unix stream socket (SCM_RIGHTS), for both ends of the bus:
// the client library and the bus daemon. Not installed.
#pragma once

#include <cstddef>
#include <sys/types.h>
#include <sys/uio.h>

namespace ubus_wire {

// sendmsg() of the buffers; a descriptor fd >= 0 travels with the first byte sent. Returns what sendmsg returns.
ssize_t send_with_fd(int sock, const iovec *iov, size_t count, int fd, int flags);

// recvmsg() into buf (close-on-exec for received descriptors). *fd receives the first descriptor that came with
// the bytes, or -1; any further ones are closed. Returns what recvmsg returns.
ssize_t recv_with_fd(int sock, void *buf, size_t len, int flags, int *fd);

} // namespace ubus_wire
