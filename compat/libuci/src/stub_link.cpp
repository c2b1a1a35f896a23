// Temporary link skeleton: every entry point exists and fails with UCI_ERR_UNKNOWN until the real
// implementation lands in the files beside this one.
#include <uci.h>
#include <cstdlib>

extern "C" {
char const uci_command_char[] = {'+', '-', 0, '@', '^', '|', '~'};
struct uci_context *uci_alloc_context(void) { return nullptr; }
void uci_free_context(struct uci_context *) {}
void uci_perror(struct uci_context *, const char *) {}
void uci_get_errorstr(struct uci_context *, char **dest, const char *) { if (dest) *dest = nullptr; }
int uci_import(struct uci_context *, FILE *, const char *, struct uci_package **, bool) { return UCI_ERR_UNKNOWN; }
int uci_export(struct uci_context *, FILE *, struct uci_package *, bool) { return UCI_ERR_UNKNOWN; }
int uci_load(struct uci_context *, const char *, struct uci_package **) { return UCI_ERR_UNKNOWN; }
int uci_unload(struct uci_context *, struct uci_package *) { return UCI_ERR_UNKNOWN; }
int uci_lookup_ptr(struct uci_context *, struct uci_ptr *, char *, bool) { return UCI_ERR_UNKNOWN; }
int uci_add_section(struct uci_context *, struct uci_package *, const char *, struct uci_section **) { return UCI_ERR_UNKNOWN; }
int uci_set(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_add_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_del_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_reorder_section(struct uci_context *, struct uci_section *, int) { return UCI_ERR_UNKNOWN; }
int uci_rename(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_delete(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_save(struct uci_context *, struct uci_package *) { return UCI_ERR_UNKNOWN; }
int uci_commit(struct uci_context *, struct uci_package **, bool) { return UCI_ERR_UNKNOWN; }
int uci_list_configs(struct uci_context *, char ***) { return UCI_ERR_UNKNOWN; }
int uci_set_savedir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_set_confdir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_set_conf2dir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_add_delta_path(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_revert(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_parse_argument(struct uci_context *, FILE *, char **, char **) { return UCI_ERR_UNKNOWN; }
int uci_set_backend(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
bool uci_validate_text(const char *) { return false; }
int uci_parse_ptr(struct uci_context *, struct uci_ptr *, char *) { return UCI_ERR_UNKNOWN; }
int uci_lookup_next(struct uci_context *, struct uci_element **, struct uci_list *, const char *) { return UCI_ERR_UNKNOWN; }
void uci_parse_section(struct uci_section *, const struct uci_parse_option *, int, struct uci_option **) {}
uint32_t uci_hash_options(struct uci_option **, int) { return 0; }
}
