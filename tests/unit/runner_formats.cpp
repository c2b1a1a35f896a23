// Every command the daemon runs must have a format the runner understands, and no code of the daemon may start
// a program any other way. The daemon's sources are read from the tree, so formats added later are checked too.
#include "routeutils/command_line.h"

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Token {
    enum Kind { Identifier, String, Punct, Other } kind;
    std::string text;  // identifier name, decoded string contents, or the punctuation
    int line;
};

struct Source {
    std::vector<Token> tokens;
    std::map<std::string, std::string> defines;  // #define NAME "text" (adjacent literals joined)
};

// Decodes the escapes of a string literal. Numeric escapes stand for control characters here, which the runner
// refuses in a command, so such a format fails as it would at run time.
std::string decodeEscapes(const std::string &body)
{
    std::string out;
    for (std::size_t i = 0; i < body.size(); ++i) {
        if (body[i] != '\\' || i + 1 == body.size()) {
            out += body[i];
            continue;
        }
        const char c = body[++i];
        if (c == 'x' || (c >= '0' && c <= '7'))
            out += '\x01';
        else
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c;
    }
    return out;
}

class Lexer {
public:
    explicit Lexer(const std::string &text) : s_(text) {}

    Source run()
    {
        Source src;
        bool lineStart = true;
        while (i_ < s_.size()) {
            const char c = s_[i_];
            if (c == '\n') {
                ++line_;
                ++i_;
                lineStart = true;
                continue;
            }
            if (std::isspace(static_cast<unsigned char>(c))) {
                ++i_;
                continue;
            }
            if (c == '/' && peek(1) == '/') {
                while (i_ < s_.size() && s_[i_] != '\n')
                    ++i_;
                continue;
            }
            if (c == '/' && peek(1) == '*') {
                i_ += 2;
                while (i_ < s_.size() && !(s_[i_] == '*' && peek(1) == '/')) {
                    if (s_[i_] == '\n')
                        ++line_;
                    ++i_;
                }
                i_ += 2;
                continue;
            }
            if (c == '#' && lineStart) {
                directive(src);
                continue;
            }
            lineStart = false;
            src.tokens.push_back(next());
        }
        return src;
    }

private:
    char peek(std::size_t k) const { return i_ + k < s_.size() ? s_[i_ + k] : '\0'; }

    Token next()
    {
        const int line = line_;
        const char c = s_[i_];
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            std::size_t j = i_;
            while (j < s_.size() && (std::isalnum(static_cast<unsigned char>(s_[j])) || s_[j] == '_'))
                ++j;
            std::string id = s_.substr(i_, j - i_);
            i_ = j;
            if ((id == "u8" || id == "L" || id == "u" || id == "U") && i_ < s_.size() && s_[i_] == '"')
                return next();  // prefix of a literal
            return {Token::Identifier, id, line};
        }
        if (c == '"' || c == '\'') {
            std::size_t j = i_ + 1;
            while (j < s_.size() && s_[j] != c) {
                if (s_[j] == '\\')
                    ++j;
                ++j;
            }
            std::string body = s_.substr(i_ + 1, j - i_ - 1);
            i_ = j + 1;
            return {c == '"' ? Token::String : Token::Other, decodeEscapes(body), line};
        }
        if (std::isdigit(static_cast<unsigned char>(c))) {
            std::size_t j = i_;
            while (j < s_.size() && (std::isalnum(static_cast<unsigned char>(s_[j])) || s_[j] == '.' || s_[j] == '\''))
                ++j;
            std::string num = s_.substr(i_, j - i_);
            i_ = j;
            return {Token::Other, num, line};
        }
        static const char *const multi[] = {"->", "::"};
        for (const char *m : multi)
            if (s_.compare(i_, 2, m) == 0) {
                i_ += 2;
                return {Token::Punct, m, line};
            }
        ++i_;
        return {Token::Punct, std::string(1, c), line};
    }

    void directive(Source &src)
    {
        std::string text;
        while (i_ < s_.size() && s_[i_] != '\n') {
            if (s_[i_] == '\\' && peek(1) == '\n') {
                i_ += 2;
                ++line_;
                continue;
            }
            text += s_[i_++];
        }
        Lexer inner(text.substr(1));
        const Source d = inner.run();
        if (d.tokens.size() >= 3 && d.tokens[0].text == "define" && d.tokens[1].kind == Token::Identifier) {
            std::string value;
            for (std::size_t k = 2; k < d.tokens.size(); ++k) {
                if (d.tokens[k].kind != Token::String)
                    return;
                value += d.tokens[k].text;
            }
            src.defines[d.tokens[1].text] = value;
        }
    }

    const std::string s_;
    std::size_t i_ = 0;
    int line_ = 1;
};

struct CommandCall {
    std::string function;
    int line;
    std::optional<std::string> format;  // empty when the first argument is not a constant text
    std::string firstArgument;          // as written, for messages
};

// Finds the calls of the named functions and resolves their first argument to a constant text when it is made
// of string literals and macros that stand for string literals.
std::vector<CommandCall> findCalls(const Source &src, const std::map<std::string, std::string> &defines,
                                   const std::vector<std::string> &functions)
{
    std::vector<CommandCall> calls;
    const auto &t = src.tokens;
    for (std::size_t k = 0; k + 1 < t.size(); ++k) {
        if (t[k].kind != Token::Identifier || t[k + 1].text != "(")
            continue;
        bool wanted = false;
        for (const auto &f : functions)
            wanted = wanted || t[k].text == f;
        if (!wanted)
            continue;
        if (k > 0 && (t[k - 1].text == "." || t[k - 1].text == "->"))
            continue;  // a member of something else
        CommandCall call{t[k].text, t[k].line, std::nullopt, {}};
        std::string text;
        bool constant = true;
        bool any = false;
        int depth = 0;
        for (std::size_t j = k + 2; j < t.size(); ++j) {
            if (depth == 0 && (t[j].text == "," || t[j].text == ")"))
                break;
            if (t[j].text == "(")
                ++depth;
            if (t[j].text == ")")
                --depth;
            call.firstArgument += (t[j].kind == Token::String ? "\"" + t[j].text + "\"" : t[j].text) + " ";
            any = true;
            if (t[j].kind == Token::String) {
                text += t[j].text;
            } else if (t[j].kind == Token::Identifier) {
                auto local = src.defines.find(t[j].text);
                auto shared = defines.find(t[j].text);
                if (local != src.defines.end())
                    text += local->second;
                else if (shared != defines.end())
                    text += shared->second;
                else
                    constant = false;
            } else {
                constant = false;
            }
        }
        if (constant && any)
            call.format = text;
        calls.push_back(call);
    }
    return calls;
}

std::string readFile(const fs::path &p)
{
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<fs::path> sourcesUnder(const fs::path &root)
{
    std::vector<fs::path> files;
    if (!fs::exists(root))
        return files;
    for (const auto &e : fs::recursive_directory_iterator(root)) {
        const auto ext = e.path().extension();
        if (e.is_regular_file() && (ext == ".cpp" || ext == ".c" || ext == ".h" || ext == ".hpp"))
            files.push_back(e.path());
    }
    return files;
}

// The string macros every daemon source can see: those of the shared headers.
std::map<std::string, std::string> sharedDefines()
{
    std::map<std::string, std::string> defines;
    for (const auto &f : sourcesUnder(fs::path(GWCONF_SOURCE_DIR) / "include")) {
        const std::string text = readFile(f);
        const Source src = Lexer(text).run();
        defines.insert(src.defines.begin(), src.defines.end());
    }
    return defines;
}

const std::vector<std::string> kRunnerEntryPoints = {"LC_SystemCall", "LC_SystemCallV", "iptables"};

}  // namespace

TEST(RunnerFormats, ExtractorFindsCallsAndResolvesTheirFormats)
{
    const std::string code = R"src(
#define RELOAD "/etc/init.d/" "firewall reload"
#define NOT_TEXT 42
// LC_SystemCall("in a comment; rm -rf /");
/* iptables("-X in a block comment"); */
void f(const char *mac, const char *fmt) {
    LC_SystemCall("ebtables -I FORWARD 1 -s %s -j DROP", mac);
    LC_SystemCall(RELOAD);
    iptables("-t nat " "-N %s\n", "MINIUPNPD");
    LC_SystemCall(fmt, mac);
    my_iptables("-F");
    obj.iptables("-F");
    ptr->LC_SystemCall("x");
    log_info("LC_SystemCall(\"not a call\")");
    LC_SystemCall(SHARED_CMD " 2> /dev/null");
    LC_SystemCall(NOT_TEXT);
}
)src";
    const Source src = Lexer(code).run();
    const std::map<std::string, std::string> shared = {{"SHARED_CMD", "uci commit network"}};
    const auto calls = findCalls(src, shared, kRunnerEntryPoints);
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].format, "ebtables -I FORWARD 1 -s %s -j DROP");
    EXPECT_EQ(calls[0].line, 7);
    EXPECT_EQ(calls[1].format, "/etc/init.d/firewall reload");
    EXPECT_EQ(calls[2].function, "iptables");
    EXPECT_EQ(calls[2].format, "-t nat -N %s\n");
    EXPECT_FALSE(calls[3].format.has_value());
    EXPECT_EQ(calls[4].format, "uci commit network 2> /dev/null");
    EXPECT_FALSE(calls[5].format.has_value());
}

TEST(RunnerFormats, EveryCommandFormatOfTheDaemonSplits)
{
    const auto shared = sharedDefines();
    std::vector<std::string> problems;
    int checked = 0;
    for (const auto &file : sourcesUnder(fs::path(GWCONF_SOURCE_DIR) / "src")) {
        const std::string text = readFile(file);
        const Source src = Lexer(text).run();
        const std::string where = fs::relative(file, GWCONF_SOURCE_DIR).string();
        for (const auto &call : findCalls(src, shared, kRunnerEntryPoints)) {
            const std::string at = where + ":" + std::to_string(call.line) + " " + call.function + "(";
            if (!call.format) {
                problems.push_back(at + call.firstArgument + "): the format is not a constant text");
                continue;
            }
            routeutils::CommandFormat format;
            std::string why;
            if (!routeutils::splitCommandFormat(call.format->c_str(), format, &why))
                problems.push_back(at + "\"" + *call.format + "\"): " + why);
            else if (call.function == "iptables" && (format.background || !format.redirections.empty()))
                problems.push_back(at + "\"" + *call.format + "\"): iptables takes arguments only");
            ++checked;
        }
    }
    for (const auto &p : problems)
        ADD_FAILURE() << p;
    if (checked == 0 && problems.empty())
        GTEST_SKIP() << "no command formats in src/ yet";
    RecordProperty("formats", checked);
}

TEST(RunnerFormats, NoOtherWayToStartAProgramInTheDaemon)
{
    const std::vector<std::string> forbidden = {"system", "popen",  "execl",       "execlp",       "execle",
                                                "execv",  "execvp", "execve",      "execvpe",      "fork",
                                                "vfork",  "clone",  "posix_spawn", "posix_spawnp", "wordexp"};
    std::vector<std::string> problems;
    for (const auto &file : sourcesUnder(fs::path(GWCONF_SOURCE_DIR) / "src")) {
        const std::string text = readFile(file);
        const Source src = Lexer(text).run();
        const std::string where = fs::relative(file, GWCONF_SOURCE_DIR).string();
        for (const auto &call : findCalls(src, {}, forbidden))
            problems.push_back(where + ":" + std::to_string(call.line) + " calls " + call.function +
                               "(); commands go through LC_SystemCall or iptables");
    }
    for (const auto &p : problems)
        ADD_FAILURE() << p;
}
