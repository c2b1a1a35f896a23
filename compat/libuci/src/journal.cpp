// The commit journal, SAVEDIR/.PKG.uci-commit. Before a commit renames its new file over the config it records
// which file that commit produced (inode, size, modification time, temporary name), how many bytes of the delta
// file it consumed and the FNV-1a 64-bit fingerprint of those bytes. A load that finds the produced file in place
// and the delta file still starting with those bytes skips them, so a crash between the rename and the emptying of
// the delta file applies nothing twice. The fingerprint covers a crash after the emptying but before the deletion
// of the journal: the delta file then holds only changes saved since, which must not be skipped.
//
// The delta file is never cut in place to drop a folded-in prefix (a crash between the truncation and the
// rewrite would lose the changes after it). The next commit folds in the rest of the file too and empties it as a
// whole; until its rename the config is still the file of the previous record, so its journal, which replaces the
// old one by a rename, keeps that record as a second line.
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

// One line of the journal: a commit's produced file and the delta bytes it folded in.
struct Record {
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

std::string journal_path(const std::string &dir, const char *pkg) { return join(dir, std::string(".") + pkg + ".uci-commit"); }

std::vector<Record> read_journal(const std::string &dir, const char *pkg)
{
	std::vector<Record> records;
	FILE *f = fopen(journal_path(dir, pkg).c_str(), "re");
	if (!f)
		return records;
	for (;;) {
		Record r;
		char temp[PATH_MAX + 1] = "";
		if (fscanf(f, "%llu %llu %llu %llu %llu %4096s %llx", &r.ino, &r.size, &r.mtime_s, &r.mtime_ns,
			   &r.consumed, temp, &r.fingerprint) != 7)
			break;
		r.temp = temp;
		records.push_back(r);
	}
	fclose(f);
	return records;
}

std::string record_line(const Record &r)
{
	return std::to_string(r.ino) + " " + std::to_string(r.size) + " " + std::to_string(r.mtime_s) + " " +
		std::to_string(r.mtime_ns) + " " + std::to_string(r.consumed) + " " + r.temp + " " + hex(r.fingerprint) +
		"\n";
}

// True when the record describes the file in st: that commit's rename took place.
bool renamed(const Record &r, const struct stat &st)
{
	return static_cast<unsigned long long>(st.st_ino) == r.ino &&
		static_cast<unsigned long long>(st.st_size) == r.size &&
		static_cast<unsigned long long>(st.st_mtim.tv_sec) == r.mtime_s &&
		static_cast<unsigned long long>(st.st_mtim.tv_nsec) == r.mtime_ns;
}

// The record whose commit produced the config in *config and whose bytes the delta file (open as fd) still
// starts with, or nullptr.
const Record *in_force(const std::vector<Record> &records, const struct stat *config, int fd)
{
	for (const Record &r : records) {
		if (!config || !renamed(r, *config))
			continue;
		std::string head = read_prefix(fd, r.consumed);
		if (head.size() == r.consumed && fingerprint(head) == r.fingerprint)
			return &r;
	}
	return nullptr;
}

}  // namespace

long committed_prefix(const std::string &dir, const char *pkg, const struct stat *config, int fd)
{
	const std::vector<Record> records = read_journal(dir, pkg);
	const Record *r = in_force(records, config, fd);
	return r ? static_cast<long>(r->consumed) : 0;
}

void drop_unfinished_temps(const std::string &dir, const char *pkg, const struct stat *config)
{
	for (const Record &r : read_journal(dir, pkg))
		if (!config || !renamed(r, *config))
			unlink(r.temp.c_str());
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
	size_t consumed, const struct stat &config)
{
	struct stat tst;
	if (fstat(tfd, &tst) < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	Record r;
	r.ino = tst.st_ino;
	r.size = static_cast<unsigned long long>(tst.st_size);
	r.mtime_s = static_cast<unsigned long long>(tst.st_mtim.tv_sec);
	r.mtime_ns = static_cast<unsigned long long>(tst.st_mtim.tv_nsec);
	r.consumed = consumed;
	r.temp = temp;
	r.fingerprint = fingerprint(read_prefix(dfd, consumed));
	std::string text = record_line(r);
	const std::vector<Record> old = read_journal(savedir, pkg);
	if (const Record *prev = in_force(old, &config, dfd))
		text += record_line(*prev);

	std::string path = journal_path(savedir, pkg);
	std::string next = path + ".new";
	Fd jfd(open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
	if (jfd.get() < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	write_all(jfd.get(), text);
	if (fsync(jfd.get()) < 0 || rename(next.c_str(), path.c_str()) < 0) {
		unlink(temp.c_str());
		fail(UCI_ERR_IO);
	}
	sync_dir(savedir);
}

void finish_journal(const std::string &savedir, const char *pkg, const Fd &dfd)
{
	// Nothing could be appended meanwhile: the delta file stayed locked since the commit read it.
	if (ftruncate(dfd.get(), 0) < 0)
		fail(UCI_ERR_IO);
	fsync(dfd.get());
	remove_journal(savedir, pkg);
}

void remove_journal(const std::string &savedir, const char *pkg)
{
	unlink(journal_path(savedir, pkg).c_str());
}

}  // namespace uci_impl
