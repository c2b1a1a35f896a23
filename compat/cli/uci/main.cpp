// uci: the command-line tool for configuration packages (show, get, set, commit, ...), built on libuci.
#include "cli.h"

#include <getopt.h>
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace uci_cli {

uci_context *ctx;
const char *separator = " ";
bool real_names;

}  // namespace uci_cli

using namespace uci_cli;

namespace {

const char *argv0 = "uci";
FILE *input = stdin;
bool quiet;
bool no_commit;
bool merge;

void usage()
{
	fprintf(stderr,
		"Usage: %s [<options>] <command> [<arguments>]\n\n"
		"Commands:\n"
		"\tbatch\n"
		"\texport     [<config>]\n"
		"\timport     [<config>]\n"
		"\tchanges    [<config>]\n"
		"\tcommit     [<config>]\n"
		"\tadd        <config> <section-type>\n"
		"\tadd_list   <config>.<section>.<option>=<string>\n"
		"\tdel_list   <config>.<section>.<option>=<string>\n"
		"\tshow       [<config>[.<section>[.<option>]]]\n"
		"\tget        <config>.<section>[.<option>]\n"
		"\tset        <config>.<section>[.<option>]=<value>\n"
		"\tdelete     <config>[.<section>[[.<option>][=<id>]]]\n"
		"\trename     <config>.<section>[.<option>]=<name>\n"
		"\trevert     <config>[.<section>[.<option>]]\n"
		"\treorder    <config>.<section>=<position>\n"
		"\n"
		"Options:\n"
		"\t-c <path>  directory of the config files (default: %s)\n"
		"\t-C <path>  override directory of config files, '' disables it (default: %s)\n"
		"\t-d <str>   separator between list items in show and get (default: one blank)\n"
		"\t-f <file>  read the input of import and batch from <file> instead of stdin\n"
		"\t-m         import: merge into the existing package (changes are saved, not committed)\n"
		"\t-n         export and commit write the names of anonymous sections\n"
		"\t-N         export and commit leave anonymous sections unnamed (default)\n"
		"\t-p <path>  add a directory to search for saved changes\n"
		"\t-P <path>  save changes to <path> and make commit do nothing\n"
		"\t-q         quiet: print no error messages\n"
		"\t-s         strict parsing: the first error stops (default)\n"
		"\t-S         lenient parsing: bad lines are reported and skipped\n"
		"\t-t <path>  directory where changes are saved (default: %s)\n"
		"\t-X         show prints the real names of anonymous sections\n"
		"\n",
		argv0, UCI_CONFDIR, UCI_CONF2DIR, UCI_SAVEDIR);
}

void report()
{
	if (quiet)
		return;
	fflush(stdout);
	uci_perror(ctx, argv0);
}

// Fails with the given error code and reports it.
int report_code(int code)
{
	ctx->err = code;
	report();
	return 1;
}

void unload_all()
{
	while (!uci_list_empty(&ctx->root)) {
		uci_element *e = list_to_element(ctx->root.next);
		uci_unload(ctx, uci_to_package(e));
	}
}

// ---- show / get ----

// Runs fn for every package of the config directory that loads; errors are reported and skipped.
template <class Fn>
int for_each_config(Fn &&fn)
{
	char **configs = nullptr;
	if (uci_list_configs(ctx, &configs) != UCI_OK) {
		report();
		return 1;
	}
	for (char **c = configs; *c; c++) {
		uci_package *p = nullptr;
		if (uci_load(ctx, *c, &p) != UCI_OK) {
			report();
			continue;
		}
		fn(p);  // may replace p (a commit reloads the package)
		uci_unload(ctx, p);
	}
	free(configs);
	return 0;
}

// Looks a tuple up (with @type[n] syntax); reports errors. The tuple buffer must outlive ptr.
bool lookup(uci_ptr &ptr, std::string &buf)
{
	if (uci_lookup_ptr(ctx, &ptr, buf.data(), true) != UCI_OK) {
		report();
		return false;
	}
	return true;
}

int cmd_show(const std::vector<std::string> &args)
{
	if (args.empty())
		return for_each_config([](uci_package *p) { show_package(p); });
	std::string buf = args[0];
	uci_ptr ptr{};
	if (!lookup(ptr, buf))
		return 1;
	if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
		return report_code(UCI_ERR_NOTFOUND);
	switch (ptr.last->type) {
	case UCI_TYPE_PACKAGE:
		show_package(ptr.p);
		break;
	case UCI_TYPE_SECTION:
		show_section(ptr.p->e.name, ptr.s->e.name, ptr.s);
		break;
	case UCI_TYPE_OPTION:
		show_option(std::string(ptr.p->e.name) + "." + ptr.s->e.name, ptr.o);
		break;
	default:
		break;
	}
	return 0;
}

// Looks up a tuple that must not carry a value (get, revert); false when the lookup failed or a value was given.
bool lookup_without_value(uci_ptr &ptr, std::string &buf)
{
	return lookup(ptr, buf) && !ptr.value;
}

int cmd_get(const std::vector<std::string> &args)
{
	std::string buf = args[0];
	uci_ptr ptr{};
	if (!lookup_without_value(ptr, buf))
		return 1;
	if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
		return report_code(UCI_ERR_NOTFOUND);
	if (ptr.last->type == UCI_TYPE_SECTION || ptr.last->type == UCI_TYPE_OPTION)
		print_value(ptr);
	return 0;
}

// ---- edits ----

enum class Edit { set, add_list, del_list, remove, rename, reorder };

int cmd_edit(Edit kind, const std::vector<std::string> &args)
{
	std::string buf = args[0];
	uci_ptr ptr{};
	if (!lookup(ptr, buf))
		return 1;
	int rc = UCI_OK;
	switch (kind) {
	case Edit::set:
		rc = uci_set(ctx, &ptr);
		break;
	case Edit::add_list:
		rc = uci_add_list(ctx, &ptr);
		break;
	case Edit::del_list:
		rc = uci_del_list(ctx, &ptr);
		break;
	case Edit::remove:
		if (ptr.value && *ptr.value) {
			char *end = nullptr;
			strtol(ptr.value, &end, 10);
			if (*end)
				return 1;
		}
		rc = uci_delete(ctx, &ptr);
		break;
	case Edit::rename:
		rc = uci_rename(ctx, &ptr);
		break;
	case Edit::reorder:
		if (!ptr.s || !ptr.value)
			return report_code(UCI_ERR_NOTFOUND);
		rc = uci_reorder_section(ctx, ptr.s, static_cast<int>(strtoul(ptr.value, nullptr, 10)));
		break;
	}
	if (rc != UCI_OK) {
		if (ctx->err)
			report();
		return 1;
	}
	if (ptr.p && uci_save(ctx, ptr.p) != UCI_OK) {
		report();
		return 1;
	}
	return 0;
}

int cmd_add(const std::vector<std::string> &args)
{
	uci_package *p = uci_lookup_package(ctx, args[0].c_str());
	if (!p && uci_load(ctx, args[0].c_str(), &p) != UCI_OK) {
		report();
		return ctx->err;
	}
	uci_section *s = nullptr;
	if (uci_add_section(ctx, p, args[1].c_str(), &s) != UCI_OK || uci_save(ctx, p) != UCI_OK) {
		report();
		return ctx->err;
	}
	printf("%s\n", s->e.name);
	return 0;
}

int cmd_revert(const std::vector<std::string> &args)
{
	std::string buf = args[0];
	uci_ptr ptr{};
	if (!lookup_without_value(ptr, buf))
		return 1;
	if (uci_revert(ctx, &ptr) != UCI_OK) {
		report();
		return 1;
	}
	return 0;
}

// Runs fn on the package named by args[0], or on every package when there is no argument.
template <class Fn>
int on_packages(const std::vector<std::string> &args, Fn &&fn)
{
	if (args.empty())
		return for_each_config(fn);
	std::string buf = args[0];
	uci_ptr ptr{};
	if (!lookup(ptr, buf))
		return 1;
	return fn(ptr.p) ? 0 : 1;
}

int cmd_commit(const std::vector<std::string> &args)
{
	if (no_commit)
		return 0;
	return on_packages(args, [](uci_package *&p) {
		if (uci_commit(ctx, &p, false) != UCI_OK) {
			report();
			return false;
		}
		return true;
	});
}

int cmd_changes(const std::vector<std::string> &args)
{
	return on_packages(args, [](uci_package *&p) {
		uci_element *e;
		uci_foreach_element(&p->saved_delta, e)
			print_change(p, uci_to_delta(e));
		return true;
	});
}

int cmd_export(const std::vector<std::string> &args)
{
	return on_packages(args, [](uci_package *&p) {
		if (uci_export(ctx, stdout, p, true) != UCI_OK) {
			report();
			return false;
		}
		return true;
	});
}

int cmd_import(const std::vector<std::string> &args)
{
	const char *name = args.empty() ? nullptr : args[0].c_str();
	uci_package *p = nullptr;
	if (merge) {
		if (uci_load(ctx, name, &p) != UCI_OK)
			p = nullptr;
	}
	if (uci_import(ctx, input, name, &p, name != nullptr) != UCI_OK) {
		report();
		return 1;
	}
	if (merge && p && p->has_delta) {
		if (uci_save(ctx, p) != UCI_OK) {
			report();
			return 1;
		}
		return 0;
	}
	uci_element *e;
	uci_foreach_element(&ctx->root, e) {
		uci_package *pkg = uci_to_package(e);
		if (uci_commit(ctx, &pkg, true) != UCI_OK) {
			report();
			return 1;
		}
	}
	return 0;
}

// ---- dispatch ----

int run_batch();

struct Command {
	const char *name;
	const char *alias;
	size_t min_args, max_args;
	int (*run)(const std::vector<std::string> &);
};

const Command commands[] = {
	{"batch", nullptr, 0, 0, [](const std::vector<std::string> &) { return run_batch(); }},
	{"export", nullptr, 0, 1, cmd_export},
	{"import", nullptr, 0, 1, cmd_import},
	{"changes", nullptr, 0, 1, cmd_changes},
	{"commit", nullptr, 0, 1, cmd_commit},
	{"add", nullptr, 2, 2, cmd_add},
	{"add_list", nullptr, 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::add_list, a); }},
	{"del_list", nullptr, 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::del_list, a); }},
	{"show", nullptr, 0, 1, cmd_show},
	{"get", nullptr, 1, 1, cmd_get},
	{"set", nullptr, 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::set, a); }},
	{"delete", "del", 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::remove, a); }},
	{"rename", "ren", 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::rename, a); }},
	{"revert", nullptr, 1, 1, cmd_revert},
	{"reorder", nullptr, 1, 1, [](const std::vector<std::string> &a) { return cmd_edit(Edit::reorder, a); }},
};

const Command *find_command(const std::string &name)
{
	for (const Command &c : commands)
		if (strcasecmp(name.c_str(), c.name) == 0 || (c.alias && strcasecmp(name.c_str(), c.alias) == 0))
			return &c;
	return nullptr;
}

// Checks the command and its argument count; nullptr when either is wrong.
const Command *command_for(const std::string &name, size_t nargs)
{
	const Command *c = find_command(name);
	if (!c || nargs < c->min_args || nargs > c->max_args)
		return nullptr;
	if (c->run == cmd_import && merge && nargs == 0)
		return nullptr;
	return c;
}

int run_batch()
{
	for (;;) {
		std::vector<std::string> tokens;
		char *str = nullptr;
		bool too_many = false, bad = false;
		for (;;) {
			char *tok = nullptr;
			if (uci_parse_argument(ctx, input, &str, &tok) != UCI_OK) {
				report();
				bad = true;
				break;
			}
			if (!*tok && (!str || !*str))
				break;
			if (tokens.size() == 4) {
				too_many = true;
				break;
			}
			tokens.emplace_back(tok);
		}
		if (tokens.empty() && !bad && !too_many) {
			if (feof(input) || ferror(input))
				break;
			continue;
		}
		if (bad)
			continue;
		if (too_many) {
			if (!quiet)
				fprintf(stderr, "Too many arguments\n");
			continue;
		}
		if (strcasecmp(tokens[0].c_str(), "exit") == 0)
			break;
		std::vector<std::string> args(tokens.begin() + 1, tokens.end());
		const Command *c = command_for(tokens[0], args.size());
		if (!c || strcmp(c->name, "batch") == 0) {
			if (!quiet)
				fprintf(stderr, "Unknown command\n");
		} else {
			c->run(args);
		}
		fflush(stdout);
		unload_all();
	}
	return 0;
}

}  // namespace

int main(int argc, char **argv)
{
	argv0 = argv[0];
	ctx = uci_alloc_context();
	if (!ctx) {
		fprintf(stderr, "%s: Out of memory\n", argv0);
		return 1;
	}
	int opt;
	while ((opt = getopt(argc, argv, "c:C:d:f:mnNp:P:qsSt:X")) != -1) {
		switch (opt) {
		case 'c':
			uci_set_confdir(ctx, optarg);
			break;
		case 'C':
			uci_set_conf2dir(ctx, optarg);
			break;
		case 'd':
			separator = optarg;
			break;
		case 'f':
			if (input != stdin) {
				fprintf(stderr, "Too many input files.\n");
				return 1;
			}
			input = fopen(optarg, "r");
			if (!input) {
				// No newline, as the original tool prints it.
				fprintf(stderr, "uci: %s", strerror(errno));
				return 1;
			}
			break;
		case 'm':
			merge = true;
			break;
		case 'n':
			ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
			break;
		case 'N':
			ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_EXPORT_NAME);
			break;
		case 'p':
			uci_add_delta_path(ctx, optarg);
			break;
		case 'P':
			uci_set_savedir(ctx, optarg);
			no_commit = true;
			break;
		case 'q':
			quiet = true;
			break;
		case 's':
			ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_STRICT);
			break;
		case 'S':
			ctx->flags = static_cast<uci_flags>((ctx->flags & ~UCI_FLAG_STRICT) | UCI_FLAG_PERROR);
			break;
		case 't':
			uci_set_savedir(ctx, optarg);
			break;
		case 'X':
			real_names = true;
			break;
		default:
			usage();
			uci_free_context(ctx);
			return 0;
		}
	}
	int rc;
	if (optind >= argc) {
		usage();
		rc = 0;
	} else if (strcasecmp(argv[optind], "help") == 0 && argc - optind == 1) {
		usage();
		rc = 0;
	} else {
		std::vector<std::string> args(argv + optind + 1, argv + argc);
		const Command *c = command_for(argv[optind], args.size());
		if (!c) {
			usage();
			rc = 255;
		} else {
			rc = c->run(args);
		}
	}
	fflush(stdout);
	if (input != stdin)
		fclose(input);
	uci_free_context(ctx);
	return rc;
}
