// What export and commit write, and the text of a delta line.
#include "internal.h"

#include <cstring>

namespace uci_impl {

namespace {

// Appends v with every ' written as '\'' (the quote closes, an escaped quote, the quote reopens).
void append_escaped(std::string &out, std::string_view v)
{
	for (size_t at = 0;;) {
		size_t q = v.find('\'', at);
		out.append(v.substr(at, q == std::string_view::npos ? std::string_view::npos : q - at));
		if (q == std::string_view::npos)
			return;
		out += "'\\''";
		at = q + 1;
	}
}

void append_quoted(std::string &out, std::string_view v)
{
	out += '\'';
	append_escaped(out, v);
	out += '\'';
}

// A keyword and a word written unquoted (a package name, a section type, an option name).
void append_word(std::string &out, const char *keyword, std::string_view word)
{
	out += keyword;
	append_escaped(out, word);
}

std::string quoted(std::string_view v)
{
	std::string r;
	append_quoted(r, v);
	return r;
}

// One "\toption NAME 'VALUE'" or "\tlist NAME 'ITEM'" line.
void value_line(Output &output, const char *keyword, std::string_view name, std::string_view value)
{
	std::string &out = output.text();
	append_word(out, keyword, name);
	out += ' ';
	append_quoted(out, value);
	out += '\n';
	output.line_done();
}

}  // namespace

void export_package(Output &output, uci_context *ctx, uci_package *p, bool header)
{
	std::string &out = output.text();
	if (header) {
		append_word(out, "package ", p->e.name);
		out += '\n';
	}
	uci_element *se;
	uci_foreach_element(&p->sections, se) {
		uci_section *s = uci_to_section(se);
		append_word(out, "\nconfig ", s->type);
		if (!s->anonymous || (ctx->flags & UCI_FLAG_EXPORT_NAME)) {
			out += ' ';
			append_quoted(out, s->e.name);
		}
		out += '\n';
		uci_element *oe;
		uci_foreach_element(&s->options, oe) {
			uci_option *o = uci_to_option(oe);
			if (o->type == UCI_TYPE_STRING) {
				value_line(output, "\toption ", o->e.name, o->v.string);
				continue;
			}
			uci_element *ie;
			uci_foreach_element(&o->v.list, ie)
				value_line(output, "\tlist ", o->e.name, ie->name);
		}
		output.line_done();
	}
	out += '\n';
}

std::string delta_text(const uci_delta *d, const char *package)
{
	std::string r;
	char prefix = uci_command_char[d->cmd];
	if (prefix)
		r += prefix;
	r += package;
	r += ".";
	r += d->section ? d->section : "";
	if (d->e.name) {
		r += ".";
		r += d->e.name;
	}
	if (d->cmd != UCI_CMD_REMOVE || d->value) {
		r += "=";
		r += quoted(d->value ? d->value : "");
	}
	r += "\n";
	return r;
}

}  // namespace uci_impl

extern "C" int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package, bool header)
{
	using namespace uci_impl;
	return guarded(ctx, [&] {
		if (!stream)
			fail(UCI_ERR_INVAL);
		Output out([stream](const std::string &text) {
			if (fwrite(text.data(), 1, text.size(), stream) != text.size())
				fail(UCI_ERR_IO);
		});
		if (package) {
			export_package(out, ctx, package, header);
		} else {
			uci_element *e;
			uci_foreach_element(&ctx->root, e)
				export_package(out, ctx, uci_to_package(e), header);
		}
		out.flush();
	});
}
