// The page template engine: renders a file of the web directory to an admin
// connection, substituting ||variables|| (escaped as HTML), skipping
// conditional text, including files, calling named generators and repeating
// list bodies through per-file list callbacks.
#pragma once

#include <string>
#include <string_view>

#include "server/admin/webio.h"

namespace korv {

struct WEB_CB_MAPPINGS;
// A list callback: sets variables per item and renders `unit` once per item
// through web_show_line. 1, or 0 when the connection failed.
using WebListFn = int (*)(WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* mappings,
                          const char* filename);
// A page-level generator (||name||): writes its HTML to l->c. Every text from
// people or clients it embeds it escapes itself (web_encode).
using WebPageFn = void (*)(WINK* l);

struct WEB_CB_MAPPINGS {
    const char* default_filename;  // file the row applies to
    const char* begin_list_id;     // id after ||begin_list / ||end_list; null ends the table
    WebListFn web_cb_fn;
};

inline constexpr int kTplListMax = 32000;   // a list body
inline constexpr int kTplLineArea = 64000;  // web_show_line's work area
inline constexpr int kTplPieceOut = 9000;   // a substituted piece
inline constexpr int kTplReadLine = 998;    // each fgets of a page file

// Directory the page files are read from ("web", relative to the server's
// home, which is the working directory). Tests point it elsewhere.
void web_set_dir(std::string_view dir);
std::string web_file(std::string_view fname);

// Writes page bytes: into l->sink when one is set, else to the connection.
// 1, or 0 when the write failed.
int web_out(WINK* l, std::string_view bytes);
// Renders a page into `out` instead of the connection, so that a page made
// under a lock can be sent after it is released.
int web_showfile_to(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings, std::string& out);

int web_showfile(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings);
int web_showfile_first(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings);
int web_show_line(WINK* l, std::string_view bf, const WEB_CB_MAPPINGS* mappings, const char* filename);
int web_show_linex(WINK* l, std::string_view piece, const WEB_CB_MAPPINGS* mappings, const char* filename);

// Variables. A null `val` leaves the list as it was.
void web_var_add(WINK* l, std::string_view var, const char* val);
void web_var_add(WINK* l, std::string_view var, const std::string& val);
void web_var_true(WINK* l, std::string_view name, int t);  // "checked" or ""
const std::string& web_var_find(const WINK* l, std::string_view var);  // "" when unset
void web_var_free(WINK* l);  // the head lines and all variables
// Substitutes ||name|| in `line` (values escaped as HTML) into `out`, with at
// most `outlen` bytes of output.
void web_var_replace(const WINK* l, std::string_view line, std::string& out, int outlen);

// Page-level generators, process-wide (latest wins on equal names).
void web_callback_add(const char* name, WebPageFn fn);
int web_callback_remove(const char* name);
void web_callback_free();

int mappings_start_is_valid(std::string_view begin, const WEB_CB_MAPPINGS* mappings, const char* filename);
int mappings_can_do_end_list(std::string_view end_list, const WEB_CB_MAPPINGS* mappings, const char* filename);
int do_mapping_cb(std::string_view action, WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* mappings,
                  const char* filename);

}  // namespace korv
