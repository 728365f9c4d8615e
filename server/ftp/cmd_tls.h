// The TLS protection commands: AUTH puts the control channel under TLS, PROT
// chooses clear or protected data channels, PBSZ is acknowledged, and SSCN
// picks the TLS role this side takes on data channels.
#pragma once

namespace korv {

struct LINK;

inline constexpr int kAuthArg = 40;  // "%.40s" of an unknown AUTH method

int cmd_auth(LINK* l, char** p, int np, const char* orig);
int cmd_prot(LINK* l, char** p, int np, const char* orig);
int cmd_pbsz(LINK* l, char** p, int np, const char* orig);
int cmd_sscn(LINK* l, char** p, int np, const char* orig);

}  // namespace korv
