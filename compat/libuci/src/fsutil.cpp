// Files on disk for libuci. See fsutil.h.
#include "fsutil.h"
#include "internal.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace uci_impl {

void Fd::reset(int fd)
{
	if (fd_ >= 0)
		close(fd_);
	fd_ = fd;
}

void lock_fd(int fd, int op)
{
	while (flock(fd, op) < 0) {
		if (errno == EINTR)
			continue;
		if (errno == ENOSYS)
			return;
		fail(UCI_ERR_IO);
	}
}

DirLock::DirLock(const std::string &dir, int op)
{
	int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fd < 0)
		return;
	fd_.reset(fd);
	lock_fd(fd, op);
}

Stream::Stream(int fd)
{
	int copy = dup(fd);
	if (copy < 0)
		fail(UCI_ERR_IO);
	f_ = fdopen(copy, "r");
	if (!f_) {
		close(copy);
		fail(UCI_ERR_IO);
	}
}

Stream::~Stream()
{
	fclose(f_);
}

std::string join(const std::string &dir, const std::string &name) { return dir + "/" + name; }

std::string dir_of(const std::string &path)
{
	size_t slash = path.rfind('/');
	if (slash == std::string::npos)
		return ".";
	if (slash == 0)
		return "/";
	return path.substr(0, slash);
}

void write_all(int fd, const std::string &data)
{
	size_t done = 0;
	while (done < data.size()) {
		ssize_t n = write(fd, data.data() + done, data.size() - done);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			fail(UCI_ERR_IO);
		}
		done += static_cast<size_t>(n);
	}
}

std::string read_all(int fd)
{
	std::string r;
	char buf[65536];
	if (lseek(fd, 0, SEEK_SET) < 0)
		fail(UCI_ERR_IO);
	for (;;) {
		ssize_t n = read(fd, buf, sizeof buf);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			fail(UCI_ERR_IO);
		}
		if (n == 0)
			return r;
		r.append(buf, static_cast<size_t>(n));
	}
}

void sync_dir(const std::string &dir)
{
	int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fd < 0)
		return;
	fsync(fd);
	close(fd);
}

mode_t file_mode(const std::string &path, mode_t fallback)
{
	struct stat st;
	if (stat(path.c_str(), &st) == 0)
		return st.st_mode & 07777;
	return fallback;
}

std::string read_prefix(int fd, size_t n)
{
	std::string r(n, '\0');
	size_t done = 0;
	while (done < n) {
		ssize_t got = pread(fd, r.data() + done, n - done, static_cast<off_t>(done));
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			fail(UCI_ERR_IO);
		if (got == 0)
			break;
		done += static_cast<size_t>(got);
	}
	r.resize(done);
	return r;
}

void rewrite(int fd, const std::string &data)
{
	if (ftruncate(fd, 0) < 0 || lseek(fd, 0, SEEK_SET) < 0)
		fail(UCI_ERR_IO);
	write_all(fd, data);
}

}  // namespace uci_impl
