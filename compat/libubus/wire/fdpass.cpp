#include "fdpass.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace ubus_wire {

ssize_t send_with_fd(int sock, const iovec *iov, size_t count, int fd, int flags)
{
	msghdr mh{};
	mh.msg_iov = const_cast<iovec *>(iov);
	mh.msg_iovlen = count;
	alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
	if (fd >= 0) {
		mh.msg_control = ctl;
		mh.msg_controllen = sizeof(ctl);
		cmsghdr *c = CMSG_FIRSTHDR(&mh);
		c->cmsg_level = SOL_SOCKET;
		c->cmsg_type = SCM_RIGHTS;
		c->cmsg_len = CMSG_LEN(sizeof(int));
		memcpy(CMSG_DATA(c), &fd, sizeof(int));
	}
	return sendmsg(sock, &mh, flags);
}

ssize_t recv_with_fd(int sock, void *buf, size_t len, int flags, int *fd)
{
	*fd = -1;
	iovec iov{buf, len};
	alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int) * 4)];
	msghdr mh{};
	mh.msg_iov = &iov;
	mh.msg_iovlen = 1;
	mh.msg_control = ctl;
	mh.msg_controllen = sizeof(ctl);
	ssize_t n = recvmsg(sock, &mh, flags | MSG_CMSG_CLOEXEC);
	for (cmsghdr *c = CMSG_FIRSTHDR(&mh); n > 0 && c; c = CMSG_NXTHDR(&mh, c)) {
		if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
			continue;
		size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
		for (size_t i = 0; i < count; i++) {
			int got;
			memcpy(&got, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
			if (*fd < 0)
				*fd = got;
			else
				close(got);	// one descriptor per message
		}
	}
	return n;
}

} // namespace ubus_wire
