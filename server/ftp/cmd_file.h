// The FTP commands that act on names: CWD, CDUP, PWD, MKD, RMD, DELE, SIZE,
// MDTM, MFMT, MFCT, RNFR, RNTO, the `.message` files of directories and the
// SITE commands (UMASK, CHMOD, HELP, IDLE, DIRSTYLE). Each is a thin layer
// over the file calls of server/vfile.h with its fixed reply texts.
#pragma once

#include <ctime>
#include <string>

namespace korv {

struct LINK;

inline constexpr int kMaxPathLen = 398;  // longest path CWD, RNFR and RNTO accept
inline constexpr int kFileArgMax = 999;  // an argument is cut to this many bytes
inline constexpr int kReadmeLine = 999;  // a `.message` line is cut to this many bytes

// The table's handlers (see server/cmd.h). XPWD shares cmd_pwd and always
// answers "/"; XMKD, XRMD, XCWD, XCUP and RM share the handlers of their verbs.
int cmd_cwd(LINK* l, char** p, int np, const char* orig);
int cmd_cdup(LINK* l, char** p, int np, const char* orig);
int cmd_pwd(LINK* l, char** p, int np, const char* orig);
int cmd_mkd(LINK* l, char** p, int np, const char* orig);
int cmd_rmd(LINK* l, char** p, int np, const char* orig);
int cmd_dele(LINK* l, char** p, int np, const char* orig);
int cmd_size(LINK* l, char** p, int np, const char* orig);
int cmd_mdtm(LINK* l, char** p, int np, const char* orig);
int cmd_mfmt(LINK* l, char** p, int np, const char* orig);
int cmd_mfct(LINK* l, char** p, int np, const char* orig);
int cmd_rnfr(LINK* l, char** p, int np, const char* orig);
int cmd_rnto(LINK* l, char** p, int np, const char* orig);
int cmd_site(LINK* l, char** p, int np, const char* orig);

// Sends each line of the virtual file `fname` (relative to the current
// directory) as "<code>-<line>", ahead of the reply `code` that follows.
// A file that cannot be opened sends nothing. Returns 1.
int cmd_readme(LINK* l, int code, const char* fname);

// "YYYYMMDDHHMMSS" (GMT) to a time; 0 for a text shorter than 12 bytes.
// Fields are read at fixed places, each cut off from the right in turn.
time_t ftp_time_convert(const char* s);

// The SITE sub-commands. `np` is the word count of the whole SITE line.
int cmd_site_umask(LINK* l, const char* mask, int np);
int cmd_site_idle(LINK* l, const char* secs, int np);
int cmd_site_chmod(LINK* l, const char* mode, const char* fname, int np, const char* orig);
int cmd_site_help(LINK* l, const char* p2, int np);

}  // namespace korv
