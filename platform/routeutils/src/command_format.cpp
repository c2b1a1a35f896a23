// Splitting a command format into words and redirections, and formatting each conversion into its word.
#include "routeutils/command_line.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/types.h>

namespace routeutils {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Characters that mean something to a shell and that no command format of the daemon needs. Inside a word they
// make the format refused, so a format never relies on a shell feature the runner does not have.
bool isShellSpecial(char c)
{
    return std::strchr("|;<>&()`$'\"\\*?[]{}~#!", c) != nullptr;
}

bool isControl(char c)
{
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7f;
}

// Reads one conversion starting at fmt[i] == '%'. Sets *literalPercent for "%%". Returns the index after it,
// or 0 with *why set when the conversion is not one the runner formats.
std::size_t readConversion(const char *fmt, std::size_t i, Conversion &conv, bool *literalPercent, std::string *why)
{
    const std::size_t start = i++;
    *literalPercent = false;
    if (fmt[i] == '%') {
        *literalPercent = true;
        return i + 1;
    }
    while (fmt[i] && std::strchr("-+ #0", fmt[i]))
        ++i;
    if (fmt[i] == '*') {
        ++conv.stars;
        ++i;
    } else {
        while (fmt[i] >= '0' && fmt[i] <= '9')
            ++i;
    }
    if (fmt[i] == '$') {
        *why = "positional arguments are not supported";
        return 0;
    }
    if (fmt[i] == '.') {
        ++i;
        if (fmt[i] == '*') {
            ++conv.stars;
            ++i;
        } else {
            while (fmt[i] >= '0' && fmt[i] <= '9')
                ++i;
        }
    }
    using L = Conversion::Length;
    conv.length = L::None;
    switch (fmt[i]) {
    case 'h':
        conv.length = fmt[i + 1] == 'h' ? L::hh : L::h;
        i += conv.length == L::hh ? 2 : 1;
        break;
    case 'l':
        conv.length = fmt[i + 1] == 'l' ? L::ll : L::l;
        i += conv.length == L::ll ? 2 : 1;
        break;
    case 'j': conv.length = L::j; ++i; break;
    case 'z': conv.length = L::z; ++i; break;
    case 't': conv.length = L::t; ++i; break;
    case 'L': conv.length = L::L; ++i; break;
    default: break;
    }
    const char k = fmt[i];
    const bool integer = k && std::strchr("diuoxX", k);
    const bool floating = k && std::strchr("eEfFgGaA", k);
    bool ok = false;
    if (integer)
        ok = conv.length != L::L;
    else if (floating)
        ok = conv.length == L::None || conv.length == L::L || conv.length == L::l;
    else if (k == 'c' || k == 's' || k == 'p')
        ok = conv.length == L::None;
    if (!ok) {
        *why = std::string("unsupported conversion \"") + std::string(fmt + start, k ? i + 1 - start : i - start) + "\"";
        return 0;
    }
    conv.kind = k;
    conv.directive.assign(fmt + start, i + 1 - start);
    return i + 1;
}

// A first word of the form NAME=... would be a variable assignment to a shell, not a program.
bool looksLikeAssignment(const std::string &literal)
{
    const auto eq = literal.find('=');
    if (eq == std::string::npos || eq == 0)
        return false;
    for (std::size_t i = 0; i < eq; ++i) {
        const char c = literal[i];
        const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        const bool digit = c >= '0' && c <= '9';
        if (!alpha && !(digit && i > 0))
            return false;
    }
    return true;
}

}  // namespace

bool splitCommandFormat(const char *fmt, CommandFormat &out, std::string *why)
{
    std::string dummy;
    if (!why)
        why = &dummy;
    out = CommandFormat{};
    if (!fmt) {
        *why = "no format";
        return false;
    }
    // Trailing blanks and line ends are no part of the command.
    std::size_t end = std::strlen(fmt);
    while (end > 0 && (isBlank(fmt[end - 1]) || fmt[end - 1] == '\n'))
        --end;
    using Kind = CommandFormat::Element::Kind;
    auto addStructure = [&](std::string text) {
        out.elements.push_back({Kind::Structure, std::move(text), {}, -1});
    };
    std::size_t i = 0;
    std::string firstWordLiteral;
    bool firstWordHasConversion = false;
    while (i < end) {
        if (isBlank(fmt[i])) {
            std::size_t j = i;
            while (j < end && isBlank(fmt[j]))
                ++j;
            out.elements.push_back({Kind::Text, std::string(fmt + i, j - i), {}, -1});
            i = j;
            continue;
        }
        if (out.background) {
            *why = "\"&\" is not the end of the command";
            return false;
        }
        const char *p = fmt + i;
        if (p[0] == '&') {
            if (i + 1 != end) {
                *why = "\"&\" is not the end of the command";
                return false;
            }
            out.background = true;
            addStructure("&");
            ++i;
            continue;
        }
        if (std::strncmp(p, "2>&1", 4) == 0 && (i + 4 == end || isBlank(p[4]))) {
            out.redirections.push_back({2, true, {}});
            addStructure("2>&1");
            i += 4;
            continue;
        }
        int fd = 0;
        std::size_t opLen = 0;
        if (p[0] == '>') {
            fd = 1;
            opLen = 1;
        } else if ((p[0] == '1' || p[0] == '2') && p[1] == '>') {
            fd = p[0] - '0';
            opLen = 2;
        }
        if (fd) {
            std::size_t j = i + opLen;
            if (j < end && (fmt[j] == '>' || fmt[j] == '&' || fmt[j] == '|')) {
                *why = std::string("unsupported redirection \"") + std::string(p, opLen + 1) + "\"";
                return false;
            }
            while (j < end && isBlank(fmt[j]))
                ++j;
            const std::size_t targetStart = j;
            while (j < end && !isBlank(fmt[j])) {
                if (fmt[j] == '%' || isShellSpecial(fmt[j]) || isControl(fmt[j])) {
                    *why = "a redirection target must be a plain file name";
                    return false;
                }
                ++j;
            }
            if (j == targetStart) {
                *why = "redirection without a file";
                return false;
            }
            Redirection r;
            r.fd = fd;
            r.path.assign(fmt + targetStart, j - targetStart);
            out.redirections.push_back(r);
            addStructure(std::string(p, j - i));
            i = j;
            continue;
        }
        // A word: literal text and conversions up to the next blank.
        const int word = out.wordCount++;
        std::string literal;
        auto flushLiteral = [&]() {
            if (!literal.empty()) {
                if (word == 0)
                    firstWordLiteral += literal;
                out.elements.push_back({Kind::Text, literal, {}, word});
                literal.clear();
            }
        };
        while (i < end && !isBlank(fmt[i])) {
            const char c = fmt[i];
            if (c == '%') {
                Conversion conv;
                bool percent = false;
                const std::size_t next = readConversion(fmt, i, conv, &percent, why);
                if (!next)
                    return false;
                if (next > end) {
                    *why = "conversion runs past the end of the command";
                    return false;
                }
                if (percent) {
                    literal += '%';
                } else {
                    flushLiteral();
                    if (word == 0)
                        firstWordHasConversion = true;
                    out.elements.push_back({Kind::Conversion, {}, conv, word});
                }
                i = next;
                continue;
            }
            if (isControl(c)) {
                *why = "control character in the command";
                return false;
            }
            if (isShellSpecial(c)) {
                *why = std::string("shell syntax \"") + c + "\" is not supported";
                return false;
            }
            literal += c;
            ++i;
        }
        flushLiteral();
    }
    if (out.wordCount == 0) {
        *why = "no program";
        return false;
    }
    if (!firstWordHasConversion && looksLikeAssignment(firstWordLiteral)) {
        *why = "variable assignments are not supported";
        return false;
    }
    return true;
}

Command formatCommand(const CommandFormat &format, ArgumentSource &args, const std::string &program)
{
    Command cmd;
    cmd.redirections = format.redirections;
    cmd.background = format.background;
    std::vector<std::string> words(static_cast<std::size_t>(format.wordCount));
    std::vector<bool> started(words.size(), false), kept(words.size(), false);
    std::size_t pos = 0;  // position in the formatted line, counting every character the format produces
    if (!program.empty()) {
        cmd.argv.push_back(program.substr(0, kCommandLineMax));
        cmd.line = cmd.argv.back();
        pos = program.size();
        if (format.wordCount > 0) {
            cmd.line += ' ';
            ++pos;
        }
    }
    // Word text past the limit is dropped (the daemon's buffer would have cut it); a word that starts past the
    // limit is dropped altogether. Redirections and the background mark belong to the format and always apply.
    auto emit = [&](int w, const std::string &text) {
        const auto idx = static_cast<std::size_t>(w);
        if (!started[idx]) {
            started[idx] = true;
            kept[idx] = pos < kCommandLineMax;
        }
        for (char c : text) {
            if (pos < kCommandLineMax) {
                words[idx] += c;
                cmd.line += c;
            } else {
                cmd.cut = true;
            }
            ++pos;
        }
    };
    using Kind = CommandFormat::Element::Kind;
    for (const auto &e : format.elements) {
        if (e.kind == Kind::Structure) {
            cmd.line += e.text;
            pos += e.text.size();
        } else if (e.word < 0) {
            cmd.line += e.text;  // blanks between words: no argument, so nothing to cut
            pos += e.text.size();
        } else {
            emit(e.word, e.kind == Kind::Conversion ? args.next(e.conversion) : e.text);
        }
    }
    for (std::size_t w = 0; w < words.size(); ++w) {
        if (kept[w])
            cmd.argv.push_back(std::move(words[w]));
        else
            cmd.cut = true;
    }
    return cmd;
}

VaListSource::VaListSource(va_list ap) { va_copy(ap_, ap); }

VaListSource::~VaListSource() { va_end(ap_); }

namespace {

template <typename T>
std::string formatOne(const Conversion &c, int nstars, const int *stars, T value)
{
    char small[128];
    int n = 0;
    switch (nstars) {
    case 0: n = std::snprintf(small, sizeof small, c.directive.c_str(), value); break;
    case 1: n = std::snprintf(small, sizeof small, c.directive.c_str(), stars[0], value); break;
    default: n = std::snprintf(small, sizeof small, c.directive.c_str(), stars[0], stars[1], value); break;
    }
    if (n < 0)
        return {};
    if (static_cast<std::size_t>(n) < sizeof small)
        return std::string(small, static_cast<std::size_t>(n));
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    switch (nstars) {
    case 0: std::snprintf(big.data(), big.size(), c.directive.c_str(), value); break;
    case 1: std::snprintf(big.data(), big.size(), c.directive.c_str(), stars[0], value); break;
    default: std::snprintf(big.data(), big.size(), c.directive.c_str(), stars[0], stars[1], value); break;
    }
    big.resize(static_cast<std::size_t>(n));
    return big;
}

}  // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string VaListSource::next(const Conversion &c)
{
    int stars[2] = {0, 0};
    for (int s = 0; s < c.stars && s < 2; ++s)
        stars[s] = va_arg(ap_, int);
    using L = Conversion::Length;
    switch (c.kind) {
    case 's': {
        const char *s = va_arg(ap_, const char *);
        return formatOne(c, c.stars, stars, s ? s : "(null)");
    }
    case 'c': return formatOne(c, c.stars, stars, va_arg(ap_, int));
    case 'p': return formatOne(c, c.stars, stars, va_arg(ap_, void *));
    case 'd':
    case 'i':
        switch (c.length) {
        case L::l: return formatOne(c, c.stars, stars, va_arg(ap_, long));
        case L::ll: return formatOne(c, c.stars, stars, va_arg(ap_, long long));
        case L::j: return formatOne(c, c.stars, stars, va_arg(ap_, intmax_t));
        case L::z: return formatOne(c, c.stars, stars, va_arg(ap_, ssize_t));
        case L::t: return formatOne(c, c.stars, stars, va_arg(ap_, ptrdiff_t));
        default: return formatOne(c, c.stars, stars, va_arg(ap_, int));
        }
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        if (c.length == L::L)
            return formatOne(c, c.stars, stars, va_arg(ap_, long double));
        return formatOne(c, c.stars, stars, va_arg(ap_, double));
    default:  // u o x X
        switch (c.length) {
        case L::l: return formatOne(c, c.stars, stars, va_arg(ap_, unsigned long));
        case L::ll: return formatOne(c, c.stars, stars, va_arg(ap_, unsigned long long));
        case L::j: return formatOne(c, c.stars, stars, va_arg(ap_, uintmax_t));
        case L::z: return formatOne(c, c.stars, stars, va_arg(ap_, size_t));
        case L::t: return formatOne(c, c.stars, stars, va_arg(ap_, ptrdiff_t));
        default: return formatOne(c, c.stars, stars, va_arg(ap_, unsigned int));
        }
    }
}
#pragma GCC diagnostic pop

}  // namespace routeutils
