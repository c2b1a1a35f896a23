// Files on disk for libuci: descriptors, flocks, whole-file reads and writes, syncs. Every failure raises
// UCI_ERR_IO through fail(). Internal.
#pragma once

#include <cstdio>
#include <string>
#include <sys/types.h>

namespace uci_impl {

// An owned file descriptor (-1 for none).
class Fd {
public:
	Fd() = default;
	explicit Fd(int fd) : fd_(fd) {}
	~Fd() { reset(); }
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;
	int get() const { return fd_; }
	void reset(int fd = -1);

private:
	int fd_ = -1;
};

// flock(fd, op), retried on EINTR; a file system without flock is not locked.
void lock_fd(int fd, int op);

// A flock on a directory, held for the lifetime of the object. A directory that cannot be opened (missing,
// or not readable) is simply not locked.
class DirLock {
public:
	DirLock(const std::string &dir, int op);

private:
	Fd fd_;
};

// A stdio stream reading a duplicate of fd from its current offset; closed with the object.
class Stream {
public:
	explicit Stream(int fd);
	~Stream();
	Stream(const Stream &) = delete;
	Stream &operator=(const Stream &) = delete;
	FILE *get() const { return f_; }

private:
	FILE *f_ = nullptr;
};

std::string join(const std::string &dir, const std::string &name);
std::string dir_of(const std::string &path);
mode_t file_mode(const std::string &path, mode_t fallback);  // permission bits, or fallback when missing

void write_all(int fd, const std::string &data);
std::string read_all(int fd);                   // from the start of the file
std::string read_prefix(int fd, size_t n);      // the first n bytes (fewer when shorter); the offset stays
void rewrite(int fd, const std::string &data);  // the file's whole content becomes data
void sync_dir(const std::string &dir);

}  // namespace uci_impl
