// The command runner's splitter with any format (the input up to its first NUL) and argument text (the rest). A
// refused format says why; an accepted one keeps each argument in its own word (literal text holds no blank or shell
// syntax), the logged line is the formatted text, and a cut (past 127 characters) only shortens or drops words.
#include "fuzz.h"
#include "routeutils/command_line.h"

namespace {

struct SameText : routeutils::ArgumentSource {
    std::string text;
    std::string next(const routeutils::Conversion &) override { return text; }
};

bool plain(const std::string &s, const char *alsoRefused)
{
    for (unsigned char c : s)
        if (c <= ' ' || c == 0x7f || std::strchr("|;<>&()`$'\"\\*?[]{}~#!", c) || std::strchr(alsoRefused, c))
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t nul = input.find('\0');
    SameText args;
    args.text = nul == std::string::npos ? "a b;$(x)`y`'z'" : input.substr(nul + 1).c_str();
    routeutils::CommandFormat format;
    std::string why;
    if (!routeutils::splitCommandFormat(input.substr(0, nul).c_str(), format, &why)) {
        FUZZ_CHECK(!why.empty(), "a format refused without a reason");
        return 0;
    }
    std::vector<std::string> words(size_t(format.wordCount));
    std::string line;
    for (const auto &e : format.elements) {
        const bool conversion = e.kind == routeutils::CommandFormat::Element::Kind::Conversion;
        FUZZ_CHECK(conversion ? e.word >= 0 : e.word < 0 || plain(e.text, ""),
                   "a conversion outside a word, or shell text in one");
        if (e.word >= 0)
            words[size_t(e.word)] += conversion ? args.text : e.text;
        line += conversion ? args.text : e.text;
    }
    for (const auto &r : format.redirections)
        FUZZ_CHECK(r.toStdout || (!r.path.empty() && plain(r.path, "%")), "a redirection target with shell text");

    const routeutils::Command cmd = routeutils::formatCommand(format, args);
    FUZZ_CHECK(!words.empty() && cmd.background == format.background &&
                   cmd.redirections.size() == format.redirections.size(), "the command is not its format");
    FUZZ_CHECK(cmd.cut || (cmd.argv == words && cmd.line == line &&
                           (line.size() <= routeutils::kCommandLineMax || !cmd.redirections.empty() || cmd.background)),
               "the arguments are not the words with each conversion's text: " + cmd.line);
    for (size_t i = 0; cmd.cut && i < cmd.argv.size(); ++i)
        FUZZ_CHECK(i < words.size() && words[i].compare(0, cmd.argv[i].size(), cmd.argv[i]) == 0,
                   "a cut did more than shorten or drop words: " + cmd.line);
    return 0;
}
