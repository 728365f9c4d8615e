// Machine listings: each session's table of MLST facts, the selection OPTS
// MLST makes, the fact line of one entry, and the MLST (control channel) and
// MLSD (data channel) handlers.
#pragma once

#include <string>
#include <string_view>

#include "base/dirscan.h"
#include "server/session/factset.h"

namespace korv {

struct LINK;
struct DIRRULES;

inline constexpr size_t kFactValueMax = 100;  // "name=value" of one fact is cut here
inline constexpr size_t kFactLineMax = 998;   // all facts of one entry are cut here
inline constexpr int kFactShowArg = 400;      // "%.400s" of the facts and the name in a line
inline constexpr int kMlstPathMax = 398;      // MLST and MLSD refuse names this long or longer

// Every fact that has a value for `d`, "name=value;" each, in table order,
// whatever the selection; `perm` is the entry's fact_perm. Returns `tmp`.
std::string& fact_show(const FACT* facts, const WILD_DATA* d, std::string& tmp, std::string_view perm);
// The value of one fact (empty when it has none). Returns `result`.
std::string& fact_show_one(const FACT* f, const WILD_DATA* d, std::string& result, std::string_view perm);
// The "perm" fact: what this session may do at the virtual path `virt`, in
// the letters of RFC 3659, each granted only when the command it stands for
// would pass the class's rules there. A file: a (APPE), d (DELE), f (RNFR and
// RNTO), r (RETR), w (STOR over it). A directory: c (STOR of a new name in
// it), d (RMD), e (CWD), f (rename), l (LIST, MLSD), m (MKD in it), p (DELE
// in it). Empty when no rule covers the path. Returns `tmp`.
std::string& fact_perm(LINK* l, std::string_view virt, int isdir, std::string& tmp);
// The letters from the rule that covers the path and the class's name
// filters (`noretrieve`, `noupload`: the name is caught by them).
std::string fact_perm_letters(const DIRRULES& rules, int isdir, int noretrieve, int noupload);
// The "unix.mode" fact: the permission bits in octal with a leading zero
// ("0644", "04755"), never the file type.
std::string fact_unix_mode(int mode);
// The virtual path of a listed entry: the last part of `entry` (a name or a
// real path) below the virtual directory `dir`.
std::string virtual_child(std::string_view dir, std::string_view entry);
std::string& bigint_to_str(long long x, std::string& tmp);

// The lock held through MLST's walk of a directory.
void get_mutex_for_unix_thread_safe_directory_scanning();
void release_mutex_for_unix_thread_safe_directory_scanning();

int cmd_mlst(LINK* l, char** p, int np, const char* orig);
int cmd_mlsd(LINK* l, char** p, int np, const char* orig);
// OPTS MLST with the list `facts` ("" when `np` is 2).
int cmd_opts_mlst(LINK* l, const char* facts, int np);

}  // namespace korv
