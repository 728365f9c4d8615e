// FTP command dispatch: the COMMANDS table (one row per verb with its
// argument bounds and login flag), cmd_do that applies the shared checks once
// and calls the row's handler, and cmd_write, the one path of every reply.
#pragma once

#include <string>

namespace korv {

struct LINK;

// Visible cuts of replies and logs.
inline constexpr int kReplyMax = 999;      // a reply is sent cut to this many bytes
inline constexpr int kReplyArg = 500;      // "%.500s" of any text in a reply
inline constexpr int kVerbArg = 40;        // "%.40s" of a verb in a reply
inline constexpr int kUnknownArg = 30;     // "%.30s" of an unknown command line
inline constexpr int kLogLineArg = 80;     // "%.80s" of a command in the log and state
inline constexpr int kStateLineArg = 400;  // "%.400s" of a command line in the state
inline constexpr int kSplitTokens = 10;    // token_split's bound on the words of a line
inline constexpr int kArgSlots = 20;       // room for the words and the two empty ones after

// A handler: p[0] is the verb, p[np] and p[np + 1] are "" so a handler may
// read two words past the end; `orig` is the whole line after the telnet
// bytes. The result is not looked at: each handler sends its own reply.
using CmdFn = int (*)(LINK* l, char** p, int np, const char* orig);

inline constexpr int kCmdNoAuth = 1;  // flags bit: allowed while needauth is set

struct COMMANDS {
  const char* name;  // lower-case verb; null ends the table
  int minargs;       // least word count, the verb included
  int maxargs;       // greatest; 2 means "the rest of the line is one argument"
  int flags;
  CmdFn fn;
};
using Commands = COMMANDS;

extern const COMMANDS commands[];

// Dispatches one line (without its CR LF). Returns 1.
int cmd_do(LINK* l, const char* line);
// Formats a reply, cuts it to kReplyMax bytes, neutralises a lone CR or LF
// (client text echoed in a reply cannot forge a reply line), copies it to the
// command log unless the client is 127.0.0.1, and sends it.
void cmd_write(LINK* l, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The text after the n-th blank of `orig` (999 bytes at most); "" if there are
// fewer blanks.
std::string cmd_getrest(const char* orig, int n);
// The reply of a verb that this server does not carry out yet.
int cmd_notimp(LINK* l, char** p, int np, const char* orig);
// Sends the `greetings` setting as a 220 reply, one line a line. 1, or 0 if
// the setting is empty.
int cmd_greetings(LINK* l);
// Reaps one finished child process, if any. Returns 1.
int ftp_release_all();

}  // namespace korv
