// Directory listings: LIST and NLST with their options, wild-cards and
// recursive form, the class's aliases shown as directories, and the
// listing on the control channel that STAT with an argument gives.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/dirscan.h"
#include "server/ftp/listfmt.h"

namespace korv {

struct LINK;
struct chan;
using Chan = chan;

inline constexpr size_t kListFlushBytes = 256 * 1024;  // listing bytes gathered per write
inline constexpr int kListLineMax = 500;              // "%.500s" of each line sent

int cmd_list(LINK* l, char** p, int np, const char* orig);
int cmd_nlst(LINK* l, char** p, int np, const char* orig);

// Lists `xfname` (options first unless `usecontrol`) on a new data
// connection, or with `usecontrol` on the control channel without opening
// one and without the closing 226. Returns 1; every outcome is replied.
int cmd_list_do(LINK* l, const char* xfname, int usecontrol);

// The entries the class's aliases add below the virtual directory
// `showname`: directories one level down, named by that level alone, whose
// modes follow the rule's read and write flags.
std::vector<WILD_DATA> list_alias_entries(LINK* l, std::string_view showname);
// Sends those entries to `c` (the control channel goes through the reply
// path) as listing lines relative to `prefix`; machine listings (`ismlst`)
// as fact lines, sized 0. The number of lines sent.
int cmd_list_aliases(LINK* l, Chan* c, std::string_view showname, std::string_view prefix,
                     int ismlst);

// A real path found by a scan that vdir_tree_first started, as the client
// knows it: its virtual path under the scanned alias, relative to the
// session's directory when it lies below it. Never real path text.
std::string list_client_path(LINK* l, const std::string& real);

// One entry's line in the session's layout (`dirstyle`), dated against now.
std::string& dir_format(LINK* l, const WILD_DATA* d, long long filesize, std::string& tmp,
                        std::string_view prefix);

}  // namespace korv
