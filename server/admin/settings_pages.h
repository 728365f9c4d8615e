// The settings editors of the web administration: the global, domain and
// class pages (show and save), the writers that turn a form field into one
// configuration line, the list callbacks of the class page, and the dump.
// Pages that change settings are rendered into memory under the store's lock
// and sent after it is released, so a slow browser never holds the lock.
#pragma once

#include <string>
#include <string_view>

#include "server/admin/webtpl.h"
#include "store/vini.h"

namespace korv {

inline constexpr int kDirRowsMax = 100;       // dir rows read back from a class form
inline constexpr int kResourceRowsMax = 500;  // group_resource and ftphome_map rows
inline constexpr int kBannerMax = 4000;       // the encoded banner

// The list callbacks of the settings pages.
extern const WEB_CB_MAPPINGS settings_mappings[];

// A handle on `domainid` and, when the input classid is not empty, on that
// class. Null (and logged) when there is no such domain or class. Call under
// the store's lock.
IniHandlePtr mgr_inihandle(WINK* w, int domainid);

// Writers of one line into the domain or the class the inputs select.
void mgr_domain_set(WINK* w, int domainid, const std::string& line);
void mgr_class_set(WINK* w, const char* sym);
void mgr_class_seti(WINK* w, const char* sym);
void mgr_class_sett(WINK* w, const char* sym);
void mgr_class_set_file_path_setting(WINK* w, const char* sym);
void mgr_class_set_val(WINK* w, const char* sym, const std::string& val);
void mgr_class_clear(WINK* w, int x);

// Sets a query input (the id a save created replaces the posted one).
void settings_set_query(WINK* w, const char* name, const std::string& value);
// The first value of a single setting stored in `t`, "" when none.
const char* settings_stored(const INITABLE* t, int code);

// The field that may not be written, or "" when every input may: a value
// holding a double quote, a line end or a NUL (line ends are allowed in
// `multiline`, which is encoded before it is stored).
std::string settings_bad_field(const WINK* w, std::string_view multiline = {});
// The refusal shown on the page for `field`.
std::string settings_refusal(std::string_view field);

// The alias of a path row: trailing slashes go (never the first two
// characters), then one '/' is put back.
std::string settings_alias(std::string alias);
// The class page's form of a stored limit, which atoi reads back.
std::string settings_speed_text(const std::string& stored);

// Page handlers: each renders its page (with the HTTP head already sent).
int mgr_cmd_global(WINK* w);
int mgr_cmd_global_save(WINK* w);
int mgr_cmd_domain(WINK* w);
int mgr_cmd_domain_show(WINK* w, int domainid);
int mgr_cmd_domain_save(WINK* w);
int mgr_cmd_domain_delete(WINK* w);
int mgr_cmd_class(WINK* w);
int mgr_cmd_class_save(WINK* w);
int mgr_cmd_class_delete(WINK* w);
int mgr_cmd_dump(WINK* w);
void mgr_do_dump(WINK* w);  // ||do_dump||

// Sends a page rendered into memory. 1, or 0 when the write failed.
int settings_send(WINK* w, const std::string& page);

// List callbacks.
int mgr_cb_classes(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename);
int mgr_cb_class(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename);
int mgr_cb_class_group_resource(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings,
                                const char* filename);
int mgr_cb_class_ftphome_mapping(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings,
                                 const char* filename);

// Generators: <option> lists of the known authentication programs and of
// the domains (all, or those with their own module).
void generate_known_auth_exe_list(WINK* w);
void generate_full_domain_list(WINK* w);
void generate_domain_auth_list(WINK* w);
void generate_domain_list(WINK* w, int filter_auth);
void mgr_add_settings_callbacks();

// The manual: /korvane/manual/<page>, /help/, and the settings search.
int my_web_show_help(WINK* w, const char* path);
int mgr_cmd_search_help(WINK* w);
void mgr_do_setting_description(WINK* w);

}  // namespace korv
