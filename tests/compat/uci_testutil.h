// Helpers for the libuci and uci tool tests: private temporary directories, files, a context bound to them
// and a runner for the uci program. Nothing here touches /etc/config or /tmp/.uci.
#pragma once

#include <uci.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ucitest {

inline std::string read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	if (!in)
		throw std::runtime_error("cannot read " + path);
	std::ostringstream s;
	s << in.rdbuf();
	return s.str();
}

inline void write_file(const std::string &path, const std::string &content)
{
	std::ofstream out(path, std::ios::binary | std::ios::trunc);
	if (!out)
		throw std::runtime_error("cannot write " + path);
	out << content;
}

inline bool exists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

// A fresh directory tree: conf/ (config files) and save/ (delta files), removed at the end.
class TempTree {
public:
	TempTree()
	{
		char tmpl[] = "/tmp/gwconf-uci-test-XXXXXX";
		if (!mkdtemp(tmpl))
			throw std::runtime_error("mkdtemp failed");
		root = tmpl;
		conf = root + "/conf";
		save = root + "/save";
		std::filesystem::create_directory(conf);
		std::filesystem::create_directory(save);
	}
	~TempTree() { std::filesystem::remove_all(root); }
	TempTree(const TempTree &) = delete;
	TempTree &operator=(const TempTree &) = delete;

	std::string config(const std::string &pkg) const { return conf + "/" + pkg; }
	std::string delta(const std::string &pkg) const { return save + "/" + pkg; }

	std::string root, conf, save;
};

// A context bound to a TempTree (no override directory).
class Context {
public:
	explicit Context(const TempTree &t) : ctx(uci_alloc_context())
	{
		if (!ctx)
			throw std::runtime_error("uci_alloc_context failed");
		uci_set_confdir(ctx, t.conf.c_str());
		uci_set_savedir(ctx, t.save.c_str());
		uci_set_conf2dir(ctx, nullptr);
	}
	~Context() { uci_free_context(ctx); }
	Context(const Context &) = delete;
	Context &operator=(const Context &) = delete;
	operator uci_context *() const { return ctx; }
	uci_context *operator->() const { return ctx; }

	uci_context *ctx;
};

// A tuple lookup that keeps its text alive as long as the ptr.
struct Tuple {
	Tuple(uci_context *ctx, const std::string &text, bool extended = true) : buf(text)
	{
		rc = uci_lookup_ptr(ctx, &ptr, buf.data(), extended);
	}
	std::string buf;
	uci_ptr ptr{};
	int rc;
};

struct RunResult {
	int status = -1;  // exit code
	std::string out, err;
};

// Runs the uci program with args (no shell involved), stdin from `input`.
inline RunResult run_uci(const std::vector<std::string> &args, const std::string &input = {})
{
	static const std::string bin = std::string(GWCONF_BIN_DIR) + "/uci";
	char tmpl[] = "/tmp/gwconf-uci-run-XXXXXX";
	if (!mkdtemp(tmpl))
		throw std::runtime_error("mkdtemp failed");
	std::string dir = tmpl;
	write_file(dir + "/in", input);
	pid_t pid = fork();
	if (pid == 0) {
		int in = open((dir + "/in").c_str(), O_RDONLY);
		int out = open((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
		int err = open((dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
		dup2(in, 0);
		dup2(out, 1);
		dup2(err, 2);
		std::vector<char *> argv;
		argv.push_back(const_cast<char *>("uci"));
		for (auto &a : args)
			argv.push_back(const_cast<char *>(a.c_str()));
		argv.push_back(nullptr);
		execv(bin.c_str(), argv.data());
		_exit(127);
	}
	RunResult r;
	int st = 0;
	waitpid(pid, &st, 0);
	r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
	r.out = read_file(dir + "/out");
	r.err = read_file(dir + "/err");
	std::filesystem::remove_all(dir);
	return r;
}

// uci with -c/-t pointing into the tree and the override directory disabled, then args.
inline RunResult uci(const TempTree &t, std::initializer_list<std::string> args, const std::string &input = {})
{
	std::vector<std::string> all = {"-c", t.conf, "-t", t.save, "-C", ""};
	all.insert(all.end(), args.begin(), args.end());
	return run_uci(all, input);
}

}  // namespace ucitest
