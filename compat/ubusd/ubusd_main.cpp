// ubusd: the bus daemon. Listens on a unix stream socket, hands every client's bytes to the Bus and writes out
// what it queues. Runs in the foreground until SIGINT or SIGTERM, then removes its socket.
#include "ubusd_bus.h"
#include "fdpass.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <unordered_set>
#include <vector>

namespace {

// epoll tags below the first client id
constexpr uint64_t kTagListen = 1;
constexpr uint64_t kTagSignal = 2;

struct Loop {
	ubusd::Bus bus;
	int epfd = -1;
	std::unordered_set<uint32_t> dirty;	// clients with fresh output
	std::unordered_set<uint32_t> waiting;	// clients whose socket is polled for writability

	void watch(ubusd::Client &cl, bool out)
	{
		epoll_event ev{};
		ev.events = EPOLLIN | (out ? uint32_t(EPOLLOUT) : 0u);
		ev.data.u64 = cl.id;
		epoll_ctl(epfd, EPOLL_CTL_MOD, cl.sock, &ev);
		if (out)
			waiting.insert(cl.id);
		else
			waiting.erase(cl.id);
	}

	void drop(ubusd::Client *cl)
	{
		epoll_ctl(epfd, EPOLL_CTL_DEL, cl->sock, nullptr);
		::close(cl->sock);
		waiting.erase(cl->id);
		dirty.erase(cl->id);
		bus.remove_client(cl);
	}

	// Writes what is queued; returns false when the peer is gone. Consecutive messages go out in one call, so a
	// reply and its status usually wake the receiver once; a descriptor travels with the first byte of its message.
	bool flush(ubusd::Client &cl)
	{
		constexpr size_t kBatch = 32;
		while (!cl.txq.empty()) {
			iovec iov[kBatch];
			size_t cnt = 0;
			int fd = cl.txq.front().fd;
			for (auto it = cl.txq.begin(); it != cl.txq.end() && cnt < kBatch; ++it) {
				if (cnt && it->fd >= 0)
					break;
				size_t skip = cnt ? 0 : cl.tx_offset;
				iov[cnt++] = iovec{it->bytes.data() + skip, it->bytes.size() - skip};
			}
			ssize_t n = ubus_wire::send_with_fd(cl.sock, iov, cnt, fd, MSG_NOSIGNAL | MSG_DONTWAIT);
			if (n < 0) {
				if (errno == EINTR)
					continue;
				if (errno == EAGAIN || errno == EWOULDBLOCK) {
					if (!waiting.count(cl.id))
						watch(cl, true);
					return true;
				}
				return false;
			}
			if (fd >= 0) {
				::close(fd);
				cl.txq.front().fd = -1;
			}
			size_t done = size_t(n);
			while (done > 0) {
				ubusd::Frame &f = cl.txq.front();
				size_t left = f.bytes.size() - cl.tx_offset;
				if (done < left) {
					cl.tx_offset += done;
					break;
				}
				done -= left;
				cl.txq_bytes -= f.bytes.size();
				cl.tx_offset = 0;
				cl.txq.pop_front();
			}
		}
		if (waiting.count(cl.id))
			watch(cl, false);
		return true;
	}

	void flush_dirty()
	{
		while (!dirty.empty()) {
			uint32_t id = *dirty.begin();
			dirty.erase(dirty.begin());
			if (ubusd::Client *cl = bus.client(id))
				if (cl->sock >= 0 && !flush(*cl))
					drop(cl);
		}
	}

	void accept_clients(int lfd)
	{
		for (;;) {
			int fd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
			if (fd < 0)
				return;
			ucred cred{};
			socklen_t len = sizeof(cred);
			if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0) {
				::close(fd);
				continue;
			}
			// A peer whose uid or gid has no name is refused without a HELLO.
			char buf[4096];
			passwd pw, *pwp = nullptr;
			group gr, *grp = nullptr;
			getpwuid_r(cred.uid, &pw, buf, sizeof(buf), &pwp);
			std::string user = pwp ? pwp->pw_name : "";
			getgrgid_r(cred.gid, &gr, buf, sizeof(buf), &grp);
			std::string grname = grp ? grp->gr_name : "";
			if (!pwp || !grp) {
				::close(fd);
				continue;
			}
			ubusd::Client *cl = bus.add_client(cred.uid, cred.gid, user, grname, fd);
			epoll_event ev{};
			ev.events = EPOLLIN;
			ev.data.u64 = cl->id;
			epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev);
		}
	}

	void read_client(ubusd::Client &cl)
	{
		static uint8_t buf[65536];
		int fd = -1;
		ssize_t n = ubus_wire::recv_with_fd(cl.sock, buf, sizeof(buf), MSG_DONTWAIT, &fd);
		if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
			return;
		if (n <= 0) {
			// The peer went away: deliver what is still queued for it if it can, then forget it.
			flush(cl);
			drop(&cl);
			return;
		}
		if (!bus.receive(cl, buf, size_t(n), fd))
			drop(&cl);	// a malformed frame costs the sender its connection
	}
};

int usage(const char *argv0)
{
	fprintf(stderr,
		"Usage: %s [<options>]\n"
		"Options: \n"
		"  -A <path>:\t\tSet the path to ACL files\n"
		"  -s <socket>:\t\tSet the unix domain socket to listen on\n"
		"\n",
		argv0);
	return 1;
}

} // namespace

int main(int argc, char **argv)
{
	const char *path = UBUS_UNIX_SOCKET;
	int opt;
	while ((opt = getopt(argc, argv, "A:s:")) != -1) {
		switch (opt) {
		case 's':
			path = optarg;
			break;
		case 'A':
			break;	// access lists are not enforced; see docs/libubus.md
		default:
			return usage(argv[0]);
		}
	}

	signal(SIGPIPE, SIG_IGN);
	sigset_t sigs;
	sigemptyset(&sigs);
	sigaddset(&sigs, SIGINT);
	sigaddset(&sigs, SIGTERM);
	sigaddset(&sigs, SIGHUP);
	sigprocmask(SIG_BLOCK, &sigs, nullptr);
	int sfd = signalfd(-1, &sigs, SFD_NONBLOCK | SFD_CLOEXEC);

	// The directory of the default socket is created even when another path is given.
	{
		std::string dir = UBUS_UNIX_SOCKET;
		dir.erase(dir.rfind('/'));
		mkdir(dir.c_str(), 0755);
	}

	umask(0111);
	unlink(path);
	sockaddr_un sun{};
	sun.sun_family = AF_UNIX;
	int lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
	if (strlen(path) >= sizeof(sun.sun_path)) {
		errno = ENAMETOOLONG;
		perror("usock");
		return 255;
	}
	strcpy(sun.sun_path, path);
	if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) < 0 || listen(lfd, SOMAXCONN) < 0) {
		perror("usock");
		return 255;
	}

	Loop loop;
	loop.epfd = epoll_create1(EPOLL_CLOEXEC);
	loop.bus.on_output = [&loop](ubusd::Client &cl) { loop.dirty.insert(cl.id); };
	epoll_event ev{};
	ev.events = EPOLLIN;
	ev.data.u64 = kTagListen;
	epoll_ctl(loop.epfd, EPOLL_CTL_ADD, lfd, &ev);
	ev.data.u64 = kTagSignal;
	epoll_ctl(loop.epfd, EPOLL_CTL_ADD, sfd, &ev);

	bool running = true;
	while (running) {
		epoll_event events[16];
		int n = epoll_wait(loop.epfd, events, 16, -1);
		if (n < 0 && errno != EINTR)
			break;
		for (int i = 0; i < n; i++) {
			uint64_t tag = events[i].data.u64;
			if (tag == kTagListen) {
				loop.accept_clients(lfd);
			} else if (tag == kTagSignal) {
				signalfd_siginfo si;
				while (read(sfd, &si, sizeof(si)) == sizeof(si))
					if (si.ssi_signo == SIGINT || si.ssi_signo == SIGTERM)
						running = false;
			} else if (ubusd::Client *cl = loop.bus.client(uint32_t(tag))) {
				if (events[i].events & EPOLLOUT) {
					if (!loop.flush(*cl)) {
						loop.drop(cl);
						continue;
					}
				}
				if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))
					loop.read_client(*cl);
			}
			loop.flush_dirty();
		}
	}

	unlink(path);
	return 0;
}
