// The FTP handlers with nothing else to do: NOOP, SYST, QUIT, ABOR, ACCT,
// ALLO, STRU, HELP, FEAT, STAT, OPTS.
#pragma once

namespace korv {

struct LINK;

inline constexpr int kQuitWaitMs = 300;   // QUIT waits this long for the client to close first
inline constexpr int kStruArg = 90;       // "%.90s" of the STRU word
inline constexpr int kFeatFactsArg = 400;  // "%.400s" of the MLST facts in FEAT

int cmd_noop(LINK* l, char** p, int np, const char* orig);
int cmd_syst(LINK* l, char** p, int np, const char* orig);
int cmd_quit(LINK* l, char** p, int np, const char* orig);
int cmd_abor(LINK* l, char** p, int np, const char* orig);
int cmd_acct(LINK* l, char** p, int np, const char* orig);
int cmd_allo(LINK* l, char** p, int np, const char* orig);
int cmd_stru(LINK* l, char** p, int np, const char* orig);
int cmd_help(LINK* l, char** p, int np, const char* orig);
int cmd_feat(LINK* l, char** p, int np, const char* orig);
int cmd_stat(LINK* l, char** p, int np, const char* orig);
int cmd_opts(LINK* l, char** p, int np, const char* orig);

}  // namespace korv
