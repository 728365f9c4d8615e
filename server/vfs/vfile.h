// File calls on behalf of a client: every touch of the disk goes through one
// of these wrappers, which translate the virtual name, test the rule, become
// the session's user, make the call, become the server again and turn errno
// into the text for the reply. Also the chain of checks before a file is
// opened and the quota counters that opening and removing move.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "server/session/link.h"
#include "server/vfs/quota.h"  // vquota_exceeded, vquota_add

namespace korv {

inline constexpr int kVfileErrCut = 100;  // "%.100s" of a system text in do_vmkdir

// The owner of an open file.
struct FileClose {
  void operator()(FILE* f) const {
    if (f) fclose(f);
  }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// Opens a real path with an fopen-style `mode` ("r", "w", "a", "r+", with or
// without "b"), close-on-exec. A file that the call creates gets the mode
// 0666 less the session's `umask`, whatever the process mask is. Null with
// errno on failure.
FILE* vfile_open_real(const char* path, const char* mode, int umask);

// All the checks before a file is opened in `mode`, in this order: a usable
// name, vdir_fname, the "read" or "write" rule, the quota (not for reads),
// impersonation, the "del" rule when an existing file would be overwritten or
// appended to, and a real open and close as a test (the test's file removed
// again if it did not exist). 1 with the real path in `bf` and in *q the size
// of a file about to be overwritten (0 otherwise, and for "a"); or 0 with the
// reason in `etext`.
int pre_vfopen_check_all(Link* l, std::string_view fname, const char* mode, std::string& etext,
                         std::string& bf, long long* q);

// Opens the virtual file `fname` after pre_vfopen_check_all, under the user's
// identity; an overwritten file's old size leaves the quota count. `f` must be
// empty on entry. 1, or 0 with `etext`.
int vfopen(Link* l, std::string_view fname, const char* mode, FilePtr& f, std::string& etext);
// Closes under the user's identity and empties `f`. 1, or 0 with `etext`.
int vfclose(Link* l, FilePtr& f, std::string& etext);

// "rename" on both names, then rename(2) (no copy across file systems).
int vrename(Link* l, std::string_view f1, std::string_view f2, std::string& etext);
// "del", then remove(2); the removed size leaves the quota count.
int vremove(Link* l, std::string_view fname, std::string& etext);
// "del", then rmdir(2); a refusal reads "access denied (korvane setting)".
int vrmdir(Link* l, std::string_view fname, std::string& etext);
// do_vmkdir with the "mkdir" rule.
int vmkdir(Link* l, std::string_view fname, std::string& etext);
// Makes the directory `fname`, its missing parents on the way. An existing
// directory is a success ("directory exists"). `skip_access` leaves out the
// rule (home creation): the server makes the directory and gives it to the
// acting user. 1 or 0, `etext` always set.
int do_vmkdir(Link* l, std::string_view fname, std::string& etext, int skip_access);
// Makes the parents of the real `path`, deepest missing first. 0 when the
// parent exists at the end, -1 otherwise (also for a path with no parent).
int make_lower_directory(const std::string& path, int mode);

// "write", then chmod with `mode` read as octal, permission bits only.
int vlib_chmod(Link* l, std::string_view fname, const char* mode, std::string& etext);
// "read"; the modification time of a plain file, or 0 with `etext`.
time_t vlib_mtime(Link* l, std::string_view fname, std::string& etext);
// "read"; 1 with the size of a plain file in *filesize, or 0 with `etext`.
int vlib_file_size(Link* l, std::string_view fname, std::string& etext, long long* filesize);
// "del" (write without nodel), then the file's times.
int v_file_set_modified_time(Link* l, std::string_view fname, time_t dte, std::string& etext);
int v_file_set_created_time(Link* l, std::string_view fname, time_t dte, std::string& etext);
// No rule: does the virtual name exist, is it a directory. 1 or 0 with `etext`.
int vexists(Link* l, std::string_view fname, std::string& etext);
int visdir(Link* l, std::string_view fname, std::string& etext);

}  // namespace korv
