// What the compat tests share: a temporary folder and whole files. Nothing here touches /etc/config, /tmp/.uci or
// the system's bus.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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

struct TempDir {
	TempDir()
	{
		char tmpl[] = "/tmp/gwconf-compat-XXXXXX";
		path = mkdtemp(tmpl) ? tmpl : "";
	}
	~TempDir() { std::filesystem::remove_all(path); }
	std::string path;
};

} // namespace ct
