// The text the uci tool prints for show, get and changes.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace uci_cli {

namespace {

// Appends v in single quotes, every ' written as '\'' (the quote closes, an escaped quote, the quote reopens).
void append_quoted(std::string &out, const char *v)
{
	out += '\'';
	for (; *v; v++) {
		if (*v == '\'')
			out += "'\\''";
		else
			out += *v;
	}
	out += '\'';
}

void print(const std::string &line)
{
	fwrite(line.data(), 1, line.size(), stdout);
}

// The items of a list option joined by the separator; show quotes every item, get only those with whitespace.
std::string list_text(uci_option *o, bool always_quote)
{
	std::string r;
	bool first = true;
	uci_element *e;
	uci_foreach_element(&o->v.list, e) {
		if (!first)
			r += separator;
		first = false;
		if (always_quote || strpbrk(e->name, " \t\r\n"))
			append_quoted(r, e->name);
		else
			r += e->name;
	}
	return r;
}

}  // namespace

void show_option(const std::string &prefix, uci_option *o)
{
	std::string line = prefix;
	((line += '.') += o->e.name) += '=';
	if (o->type == UCI_TYPE_STRING)
		append_quoted(line, o->v.string);
	else
		line += list_text(o, true);
	print(line += '\n');
}

void show_section(const std::string &pkg, const std::string &ref, uci_section *s)
{
	std::string prefix = pkg + "." + ref;
	print(prefix + "=" + s->type + "\n");
	uci_element *e;
	uci_foreach_element(&s->options, e)
		show_option(prefix, uci_to_option(e));
}

void show_package(uci_package *p)
{
	std::map<std::string, int> seen;
	uci_element *e;
	uci_foreach_element(&p->sections, e) {
		uci_section *s = uci_to_section(e);
		int index = seen[s->type]++;
		std::string ref = s->e.name;
		if (s->anonymous && !real_names)
			ref = std::string("@") + s->type + "[" + std::to_string(index) + "]";
		show_section(p->e.name, ref, s);
	}
}

void print_value(const uci_ptr &ptr)
{
	if (ptr.last->type == UCI_TYPE_SECTION)
		print(std::string(ptr.s->type) + "\n");
	else if (ptr.o->type == UCI_TYPE_STRING)
		print(std::string(ptr.o->v.string) + "\n");
	else
		print(list_text(ptr.o, false) + "\n");
}

void print_change(uci_package *p, uci_delta *d)
{
	std::string line;
	if (d->cmd == UCI_CMD_REMOVE)
		line += "-";
	line += p->e.name;
	line += ".";
	line += d->section;
	if (d->e.name) {
		line += ".";
		line += d->e.name;
	}
	if (d->cmd != UCI_CMD_REMOVE) {
		line += d->cmd == UCI_CMD_LIST_ADD ? "+=" : d->cmd == UCI_CMD_LIST_DEL ? "-=" : "=";
		append_quoted(line, d->value ? d->value : "");
	}
	print(line += '\n');
}

}  // namespace uci_cli
