// The shell-like tokenizer shared by the configuration parser, the delta reader and the batch tokenizer.
#pragma once

#include <cstdio>
#include <string>

namespace uci_impl {

// Reads physical lines from a stream and counts the ones that ended with a newline.
class LineSource {
public:
	explicit LineSource(FILE *f) : f_(f) {}
	~LineSource();
	LineSource(const LineSource &) = delete;
	LineSource &operator=(const LineSource &) = delete;

	// Appends the next line (with its newline, if any) to buf; false at the end of the stream.
	bool read(std::string &buf);

	int line = 0;

private:
	FILE *f_;
	char *chunk_ = nullptr;
	size_t cap_ = 0;
};

// A quote left open at the end of the stream.
struct TokenError {
	const char *reason;
};

// Splits buf from pos into tokens: unquoted text with backslash escapes, '...' (literal) and "..." (with
// backslash escapes) pieces joined together; '#' starts a comment and ';' ends a command. A token that
// continues past the end of the line (open quote, trailing backslash) pulls the next line into buf.
class Tokenizer {
public:
	Tokenizer(LineSource &src, std::string &buf, size_t &pos) : src(src), buf(buf), pos(pos) {}

	// The next token of the current command in out; false when the command has no more (end of line,
	// comment, or ';' which is left at pos). Consumes the one blank that ends the token.
	bool next(std::string &out);
	void skip_space();
	// True when only blanks, a comment or a ';' follow.
	bool at_command_end();

private:
	bool line_end_at(size_t i) const;

	LineSource &src;
	std::string &buf;
	size_t &pos;
};

}  // namespace uci_impl
