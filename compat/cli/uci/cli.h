// What the uci tool's source files share: its context and options, and the text of show, get and changes.
#pragma once

#include <uci.h>

#include <string>

namespace uci_cli {

extern uci_context *ctx;
extern const char *separator;	// between list items in show and get (-d)
extern bool real_names;		// show prints the names of anonymous sections (-X)

// show: "pkg.ref=type" and one "pkg.ref.option=value" line per option; a package names its anonymous sections
// @type[n] unless real_names.
void show_package(uci_package *p);
void show_section(const std::string &pkg, const std::string &ref, uci_section *s);
void show_option(const std::string &prefix, uci_option *o);
// get: the section's type or the option's value (list items quoted only when they hold whitespace).
void print_value(const uci_ptr &ptr);
// changes: one line per saved change.
void print_change(uci_package *p, uci_delta *d);

}  // namespace uci_cli
