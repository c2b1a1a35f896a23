// Fuzzes the command runner's splitter with arbitrary formats. Whatever it accepts must keep every formatted
// argument inside its own word: words never hold blanks or shell syntax of the format, redirection targets are
// plain file names, and the arguments built from the words match the line that is logged.
#include "routeutils/command_line.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Gives every conversion the same hostile text, whatever type it names.
struct HostileText : routeutils::ArgumentSource {
    std::string text;
    std::string next(const routeutils::Conversion &) override { return text; }
};

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "runner_split: %s\n", what);
    std::abort();
}

bool plainChar(char c)
{
    const auto u = static_cast<unsigned char>(c);
    return u >= 0x20 && u != 0x7f && c != ' ' && !std::strchr("|;<>&()`$'\"\\*?[]{}~#!", c);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The first bytes up to a NUL (or all of them) are the format; the rest is the argument text.
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::size_t nul = input.find('\0');
    const std::string fmt = input.substr(0, nul);
    HostileText args;
    args.text = nul == std::string::npos ? "a b;$(x)`y`'z'" : input.substr(nul + 1);
    if (args.text.find('\0') != std::string::npos)
        args.text.resize(args.text.find('\0'));

    routeutils::CommandFormat format;
    std::string why;
    if (!routeutils::splitCommandFormat(fmt.c_str(), format, &why)) {
        if (why.empty())
            fail("refused without a reason");
        return 0;
    }
    if (format.wordCount < 1)
        fail("accepted without a program");

    std::string concatenated;
    std::vector<std::string> expected(static_cast<std::size_t>(format.wordCount));
    using Kind = routeutils::CommandFormat::Element::Kind;
    for (const auto &e : format.elements) {
        if (e.kind == Kind::Text && e.word >= 0) {
            for (char c : e.text)
                if (!plainChar(c) && c != '%')
                    fail("word text holds blank or shell syntax");
            expected[static_cast<std::size_t>(e.word)] += e.text;
            concatenated += e.text;
        } else if (e.kind == Kind::Conversion) {
            if (e.word < 0 || e.conversion.directive.empty() || e.conversion.directive[0] != '%')
                fail("bad conversion");
            expected[static_cast<std::size_t>(e.word)] += args.text;
            concatenated += args.text;
        } else {
            concatenated += e.text;
        }
    }
    for (const auto &r : format.redirections) {
        if (r.fd != 1 && r.fd != 2)
            fail("redirection of another descriptor");
        if (!r.toStdout && r.path.empty())
            fail("redirection without a file");
        for (char c : r.path)
            if (!plainChar(c) || c == '%')
                fail("redirection target is not a plain name");
    }

    const routeutils::Command cmd = routeutils::formatCommand(format, args);
    if (!cmd.cut) {
        if (cmd.argv != expected)
            fail("arguments differ from the words");
        if (cmd.line != concatenated)
            fail("logged line differs from the formatted text");
        if (cmd.line.size() > routeutils::kCommandLineMax && format.redirections.empty() && !format.background)
            fail("line over the limit without a cut");
    } else {
        if (cmd.argv.size() > expected.size())
            fail("a cut added words");
        for (std::size_t i = 0; i < cmd.argv.size(); ++i)
            if (expected[i].compare(0, cmd.argv[i].size(), cmd.argv[i]) != 0)
                fail("a cut word is not a prefix of its word");
    }
    if (cmd.background != format.background || cmd.redirections.size() != format.redirections.size())
        fail("structure lost");
    return 0;
}
