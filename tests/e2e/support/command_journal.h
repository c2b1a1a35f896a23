// Reading the command journal back as argument lists, and the shapes of the commands gwconfd is known to run.
//
// journalWords() undoes the journal's quoting (docs/sandbox.md): bare words, '...' with a quote written as '\'',
// the empty argument '', and bash's $'...' form for arguments holding control characters. It is strict: text that
// the journal writer cannot have produced (an unclosed quote, an unknown escape, two blanks in a row) is an error,
// so a corrupted line cannot pass as some other argument list.
//
// A command shape is the list of words of one command, where "*" stands for exactly one word of any text (the
// place a MAC, an interface or an address goes) and "a|b|c" for one of these words. A journal line matches a
// shape only with the same number of words, so an argument that got split into two words, or two that got joined,
// matches no shape.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace gw::e2e {

// The argument list of one journal line (the command's name first); nullopt and *error set on a malformed line.
std::optional<std::vector<std::string>> journalWords(const std::string &line, std::string *error = nullptr);

// Splits a shape text at single blanks.
std::vector<std::string> shapeWords(const std::string &shape);

// True when `words` has the shape; `slots` (when given) receives the words that stood at the "*" places.
bool matchesShape(const std::vector<std::string> &words, const std::vector<std::string> &shape,
                  std::vector<std::string> *slots = nullptr);

// Every command gwconfd runs, directly or through the WAN port redirect script, as shapes.
const std::vector<std::string> &daemonCommandShapes();

// The first shape `words` matches: its index in daemonCommandShapes(), or -1. `slots` as in matchesShape.
int daemonCommandShape(const std::vector<std::string> &words, std::vector<std::string> *slots = nullptr);

}  // namespace gw::e2e
