// The command runner's inner parts, open to the tests and the fuzz target: a printf format that names a command
// is split into words, redirections and a background mark before any argument is formatted; then every
// conversion is formatted into the word it stands in, as plain text. Nothing here starts a process.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

namespace routeutils {

// The daemon formats its command lines into 128-byte buffers; a line keeps at most this many characters.
inline constexpr std::size_t kCommandLineMax = 127;

// One printf conversion of a format ("%s", "%-5d", "%*.*lu", ...).
struct Conversion {
    enum class Length { None, hh, h, l, ll, j, z, t, L };
    std::string directive;  // the conversion as written, '%' to the conversion character
    char kind = 's';    // d i u o x X c s p e E f F g G a A
    Length length = Length::None;
    int stars = 0;      // '*' width and/or precision, each taking an int argument before the value
};

// Where the text of each conversion comes from: the caller's va_list in the runner, plain texts in the tests.
class ArgumentSource {
public:
    virtual ~ArgumentSource() = default;
    virtual std::string next(const Conversion &conversion) = 0;
};

// Takes the arguments from a va_list, by the type that each conversion names.
class VaListSource final : public ArgumentSource {
public:
    explicit VaListSource(va_list ap);
    ~VaListSource() override;
    VaListSource(const VaListSource &) = delete;
    VaListSource &operator=(const VaListSource &) = delete;
    std::string next(const Conversion &conversion) override;

private:
    va_list ap_;
};

struct Redirection {
    int fd = 1;             // 1 (stdout) or 2 (stderr)
    bool toStdout = false;  // "2>&1": fd 2 becomes a copy of fd 1 as it is at that point
    std::string path;       // otherwise the file, created or truncated
};

// The format split into its parts. Elements keep the format's order so that the formatted line can be rebuilt.
struct CommandFormat {
    struct Element {
        enum class Kind { Text, Conversion, Structure } kind = Kind::Text;
        std::string text;       // literal text (Text, Structure)
        Conversion conversion;  // Conversion
        int word = -1;          // the word a Text or Conversion belongs to; -1 for blanks between words
    };
    std::vector<Element> elements;
    int wordCount = 0;
    std::vector<Redirection> redirections;
    bool background = false;
};

// Splits fmt. Returns false, with the reason in *why, for a format that uses anything beyond plain words, the
// redirections "2> FILE", "> FILE", "1> FILE", "2>&1" and a final "&".
bool splitCommandFormat(const char *fmt, CommandFormat &out, std::string *why);

// A formatted command: the argument vector and the line as it is logged.
struct Command {
    std::vector<std::string> argv;
    std::vector<Redirection> redirections;
    bool background = false;
    std::string line;  // the formatted text as run: words cut at kCommandLineMax, redirections and "&" kept
    bool cut = false;  // the formatted text was longer than kCommandLineMax
};

// Formats a split command. program, when not empty, is put before the format's own words as the first word
// (the iptables entry point uses it); it counts towards the line's length like any word.
Command formatCommand(const CommandFormat &format, ArgumentSource &args, const std::string &program = {});

// Starts the command: fork and execvp, with the redirections applied in the child. A foreground command is
// waited for and its exit status returned (128 + signal number when a signal ended it, 127 when the program
// could not be started); a background one returns 0 at once and is reaped by a later call. -1 when no process
// could be started.
int runCommand(const Command &command);

// Reaps background commands that have ended; returns how many are still running.
int reapBackgroundCommands();

}  // namespace routeutils
