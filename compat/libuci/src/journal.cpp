// The commit journal: SAVEDIR/.PKG.uci-commit records, before a commit renames its new file over the config,
// which file that commit produced (inode, size, modification time, temporary name), how many bytes of the delta
// file it consumed and the FNV-1a 64-bit fingerprint of those bytes. A crash between the rename and the emptying
// of the delta file then applies nothing twice: a load that finds the journal, the produced file in place and the
// delta file still starting with those bytes skips them, and the next commit or revert drops them for good and
// deletes the journal. The fingerprint covers a crash after the emptying but before the deletion of the journal:
// the delta file then holds only changes saved since, which must not be skipped.
#include "fsutil.h"
#include "internal.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace uci_impl {

namespace {

struct Journal {
	unsigned long long ino = 0, size = 0, mtime_s = 0, mtime_ns = 0, consumed = 0, fingerprint = 0;
	std::string temp;
};

// FNV-1a, 64 bits, of the consumed part of a delta file.
unsigned long long fingerprint(std::string_view bytes)
{
	unsigned long long h = 14695981039346656037ULL;
	for (unsigned char c : bytes) {
		h ^= c;
		h *= 1099511628211ULL;
	}
	return h;
}

std::string hex(unsigned long long v)
{
	char text[17];
	snprintf(text, sizeof text, "%016llx", v);
	return text;
}

// True when the delta file (its first bytes in `head`) still starts with what the journal's commit consumed.
bool still_holds_consumed(const Journal &j, std::string_view head)
{
	return head.size() >= j.consumed && fingerprint(head.substr(0, j.consumed)) == j.fingerprint;
}

std::string journal_path(const std::string &dir, const char *pkg) { return join(dir, std::string(".") + pkg + ".uci-commit"); }

bool read_journal(const std::string &dir, const char *pkg, Journal &j)
{
	FILE *f = fopen(journal_path(dir, pkg).c_str(), "re");
	if (!f)
		return false;
	char temp[PATH_MAX + 1] = "";
	int n = fscanf(f, "%llu %llu %llu %llu %llu %4096s %llx", &j.ino, &j.size, &j.mtime_s, &j.mtime_ns, &j.consumed,
		       temp, &j.fingerprint);
	fclose(f);
	if (n < 7)
		return false;
	j.temp = temp;
	return true;
}

// True when the journal describes the file in st: that commit's rename took place.
bool journal_done(const Journal &j, const struct stat &st)
{
	return static_cast<unsigned long long>(st.st_ino) == j.ino &&
		static_cast<unsigned long long>(st.st_size) == j.size &&
		static_cast<unsigned long long>(st.st_mtim.tv_sec) == j.mtime_s &&
		static_cast<unsigned long long>(st.st_mtim.tv_nsec) == j.mtime_ns;
}

}  // namespace

// Bytes at the start of the delta file DIR/PKG (open as fd) that a finished commit already folded into the
// config file.
long committed_prefix(const std::string &dir, const char *pkg, const struct stat *config, int fd)
{
	Journal j;
	if (!config || !read_journal(dir, pkg, j) || !journal_done(j, *config) ||
	    !still_holds_consumed(j, read_prefix(fd, j.consumed)))
		return 0;
	return static_cast<long>(j.consumed);
}

// Finishes or discards an interrupted commit (exclusive locks held): drops the consumed part of the delta
// file if the rename happened, then removes the journal and any temporary file left behind.
void recover_journal(const std::string &dir, const char *pkg, const std::string &config_path)
{
	Journal j;
	if (!read_journal(dir, pkg, j)) {
		unlink(journal_path(dir, pkg).c_str());
		return;
	}
	struct stat st;
	if (stat(config_path.c_str(), &st) == 0 && journal_done(j, st)) {
		Fd d(open(join(dir, pkg).c_str(), O_RDWR | O_CLOEXEC));
		if (d.get() >= 0) {
			lock_fd(d.get(), LOCK_EX);
			std::string rest = read_all(d.get());
			if (still_holds_consumed(j, rest)) {
				rest.erase(0, j.consumed);
				rewrite(d.get(), rest);
				fsync(d.get());
			}
		}
	} else if (!j.temp.empty()) {
		unlink(j.temp.c_str());
	}
	unlink(journal_path(dir, pkg).c_str());
	sync_dir(dir);
}

// Removes the temporary files of earlier commits of pkg that were cut off before their journal was written (a
// crash or SIGKILL at that moment); without this each such crash would leave a file in the config folder for good.
// The caller holds the config's exclusive lock, which every writer of pkg takes before it makes a temporary file,
// so no such file is still being written.
void drop_stale_temps(const std::string &dir, const char *pkg)
{
	const std::string prefix = std::string(".") + pkg + ".uci-";
	DIR *d = opendir(dir.c_str());
	if (!d)
		return;
	std::vector<std::string> stale;
	while (dirent *de = readdir(d)) {
		std::string name = de->d_name;
		if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0 &&
		    name.compare(prefix.size(), 6, "commit") != 0)
			stale.push_back(join(dir, name));
	}
	closedir(d);
	for (const auto &path : stale)
		unlink(path.c_str());
}

void write_journal(const std::string &savedir, const char *pkg, const std::string &temp, int tfd, int dfd,
	size_t consumed)
{
	struct stat tst;
	if (fstat(tfd, &tst) < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	std::string j = std::to_string(tst.st_ino) + " " + std::to_string(tst.st_size) + " " +
		std::to_string(tst.st_mtim.tv_sec) + " " + std::to_string(tst.st_mtim.tv_nsec) + " " +
		std::to_string(consumed) + " " + temp + " " + hex(fingerprint(read_prefix(dfd, consumed))) + "\n";
	Fd jfd(open(journal_path(savedir, pkg).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
	if (jfd.get() < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	write_all(jfd.get(), j);
	fsync(jfd.get());
	sync_dir(savedir);
}

void finish_journal(const std::string &savedir, const char *pkg, int dfd)
{
	// Nothing could be appended meanwhile: the delta file stayed locked since the commit read it.
	if (ftruncate(dfd, 0) < 0)
		fail(UCI_ERR_IO);
	fsync(dfd);
	unlink(journal_path(savedir, pkg).c_str());
}

}  // namespace uci_impl
