// What the compat tests share: temporary directories and files, running a program without a shell (the uci and
// ubus tools, the bus daemon), transcripts (a command, then its expected output) and a libuci context bound to a
// temporary tree. Nothing here touches /etc/config, /tmp/.uci or the system's bus.
#pragma once

#include <gtest/gtest.h>
#include <uci.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ct {

inline std::string read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	std::ostringstream s;
	s << in.rdbuf();
	return s.str();
}

inline void write_file(const std::string &path, const std::string &text)
{
	std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool exists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

inline std::string bin(const char *name)
{
	return std::string(GWCONF_BIN_DIR) + "/" + name;
}

struct TempDir {
	TempDir()
	{
		char tmpl[] = "/tmp/gwconf-compat-XXXXXX";
		path = mkdtemp(tmpl) ? tmpl : "";
	}
	~TempDir() { std::filesystem::remove_all(path); }
	TempDir(const TempDir &) = delete;
	std::string path;
};

// Starts argv (argv[0] a path) with extra environment entries; stdin, stdout and stderr from the given
// descriptors (-1: inherited). The child dies with the test process.
inline pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env = {}, int in = -1,
		   int out = -1, int err = -1)
{
	pid_t pid = fork();
	if (pid == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		for (const std::string &e : env)
			putenv(strdup(e.c_str()));
		int fds[] = {in, out, err};
		for (int i = 0; i < 3; i++)
			if (fds[i] >= 0)
				dup2(fds[i], i);
		std::vector<char *> args;	// argv[0] as a shell would give it: the program's name
		for (const std::string &a : argv)
			args.push_back(const_cast<char *>(a.c_str()));
		args[0] = basename(args[0]);
		args.push_back(nullptr);
		execv(argv[0].c_str(), args.data());
		_exit(127);
	}
	return pid;
}

// The exit code of a child, 128 + signal when killed, or -1 after timeout_ms (the child keeps running).
inline int wait_exit(pid_t pid, int timeout_ms = 20000)
{
	auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	for (;;) {
		int st;
		pid_t r = waitpid(pid, &st, WNOHANG);
		if (r == pid)
			return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
		if (r < 0 || std::chrono::steady_clock::now() > until)
			return -1;
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
}

inline void stop(pid_t &pid, int sig = SIGTERM)
{
	if (pid <= 0)
		return;
	kill(pid, sig);
	if (wait_exit(pid, 5000) < 0) {
		kill(pid, SIGKILL);
		wait_exit(pid, 5000);
	}
	pid = -1;
}

struct Result {
	int code = -1;
	std::string out, err;
};

// Runs argv with `input` on stdin; stdout and stderr are captured, stderr through a terminal when tty is set.
inline Result run(const std::vector<std::string> &argv, const std::string &input = {}, bool tty = false)
{
	TempDir d;
	write_file(d.path + "/in", input);
	int in = open((d.path + "/in").c_str(), O_RDONLY | O_CLOEXEC);
	int out = open((d.path + "/out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
	int master = tty ? posix_openpt(O_RDWR | O_NOCTTY) : -1;
	if (tty) {
		grantpt(master);
		unlockpt(master);
	}
	int err = tty ? open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC)
		      : open((d.path + "/err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
	pid_t pid = spawn(argv, {}, in, out, err);
	close(in);
	close(out);
	close(err);
	Result r;
	if ((r.code = wait_exit(pid)) < 0)
		stop(pid, SIGKILL);
	r.out = read_file(d.path + "/out");
	if (!tty) {
		r.err = read_file(d.path + "/err");
		return r;
	}
	fcntl(master, F_SETFL, O_NONBLOCK);
	char buf[4096];
	for (ssize_t n; (n = read(master, buf, sizeof(buf))) > 0;)
		r.err.append(buf, size_t(n));
	close(master);
	std::erase(r.err, '\r');
	return r;
}

// A run as a transcript shows it: stdout, "! " before each line of stderr, "[exit N]" when not 0.
inline std::string shown(const Result &r)
{
	std::string s = r.out;
	std::istringstream err(r.err);
	for (std::string l; std::getline(err, l);)
		s += "! " + l + "\n";
	return r.code ? s + "[exit " + std::to_string(r.code) + "]\n" : s;
}

// Checks a transcript file in the form of a cram file: "$ COMMAND", then "> " lines of its standard input, then
// what `perform` gives for it. The session the commands produce is compared with the file as a whole; with
// GWCONF_UPDATE_GOLDEN=1 in the environment it is written back into the file (to write a new case, then review).
inline void check_transcript(const std::string &path,
			     const std::function<std::string(const std::string &cmd, const std::string &input)> &perform)
{
	std::string expected = read_file(path), actual;
	std::vector<std::pair<std::string, std::string>> cmds;
	std::istringstream in(expected);
	for (std::string line; std::getline(in, line);) {
		if (line.rfind("$ ", 0) == 0)
			cmds.push_back({line.substr(2), ""});
		else if (line.rfind("> ", 0) == 0 && !cmds.empty())
			cmds.back().second += line.substr(2) + "\n";
	}
	for (const auto &[cmd, input] : cmds) {
		actual += "$ " + cmd + "\n";
		std::istringstream lines(input);
		for (std::string l; std::getline(lines, l);)
			actual += "> " + l + "\n";
		actual += perform(cmd, input);
	}
	if (getenv("GWCONF_UPDATE_GOLDEN"))
		write_file(path, actual);
	EXPECT_EQ(expected, actual) << path;
}

inline std::vector<std::string> words(const std::string &line)
{
	std::istringstream in(line);
	std::vector<std::string> w;
	for (std::string s; in >> s;)
		w.push_back(s);
	return w;
}

// ---- libuci ----

// conf/ (config files) and save/ (delta files) in a fresh directory.
struct UciTree : TempDir {
	UciTree()
	{
		std::filesystem::create_directory(conf = path + "/conf");
		std::filesystem::create_directory(save = path + "/save");
	}
	std::string config(const std::string &pkg) const { return conf + "/" + pkg; }
	std::string delta(const std::string &pkg) const { return save + "/" + pkg; }
	// The uci tool on this tree (no override directory).
	Result uci(std::vector<std::string> args, const std::string &input = {}) const
	{
		args.insert(args.begin(), {bin("uci"), "-c", conf, "-t", save, "-C", ""});
		return run(args, input);
	}
	std::string conf, save;
};

// A context bound to a tree.
struct Context {
	explicit Context(const UciTree &t) : ctx(uci_alloc_context())
	{
		uci_set_confdir(ctx, t.conf.c_str());
		uci_set_savedir(ctx, t.save.c_str());
		uci_set_conf2dir(ctx, nullptr);
	}
	~Context() { uci_free_context(ctx); }
	Context(const Context &) = delete;
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

} // namespace ct
