// Mirror jobs: local copies of remote FTP directories, kept in mirrors.dat,
// run one after the other by the mirror thread at each job's interval, with a
// log per job. Pages and the thread share the jobs under the MIRROR lock: a
// running job works on a copy of its settings, and only its status fields
// (tlast, last_error) are written back, under the lock.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korv {

struct ftplink;

inline constexpr int kMirrorFieldMax = 500;      // each text field of mirrors.dat
inline constexpr int kMirrorLineMax = 998;       // a line of mirrors.dat is read up to here
inline constexpr int kMirrorFieldsMin = 10;      // fewer fields make no job
inline constexpr int kMirrorFieldsMax = 90;      // fields a line is split into at most
inline constexpr int kMirrorCycleMs = 5000;      // the thread looks for due jobs this often
inline constexpr int kMirrorStopSliceMs = 100;   // how soon a stopping server sees the thread leave
inline constexpr int kMirrorNameMax = 255;       // a longer remote name is skipped
inline constexpr int kMirrorDepthMax = 40;       // directory levels a job descends
inline constexpr long long kMirrorSlackBytes = 1 << 20;  // a file may grow this much past its listed size
inline constexpr char kMirrorFile[] = "mirrors.dat";

struct MIRROR {
    std::string remote_host;  // host or host:port
    std::string remote_path;
    std::string files;        // wild-card list
    std::string lcl;          // local base directory
    int use_full_path = 1;
    int id = 0;
    int subdir = 0;
    int mirror_ssl = 0;
    int xdelay = 0;           // minutes between runs
    time_t tlast = 0;         // last start; 0 = queued
    std::string user, pass;
    int trim = 0;
    std::string last_error;   // status text of the pages
    int isdel = 0;
};
using Mirror = MIRROR;
using MirrorPtr = std::shared_ptr<MIRROR>;

// Where mirrors.dat, the job logs and rootCA.pem live ("" = the working
// directory, the server's home). Tests point it elsewhere.
void mirror_set_dir(std::string_view dir);
std::string mirror_dir_file(std::string_view name);
// The data read limit of a job's transfers (120 s unless a test shortens it).
void mirror_set_timeout_ms(int ms);

// Loads the job file and starts the mirror thread.
int mirror_init(const char* mmfile);
// Loads the job file into the list (replacing it). The count of jobs.
int mirror_load(const char* mmfile);
// Stops the thread (bounded wait) and forgets every job.
void mirror_free_all();

MirrorPtr mirror_add(int id, const char* remote_host, const char* remote_path, const char* files, const char* lcl,
                     const char* subdir, const char* trim, int xdelay, const char* user, const char* pass,
                     const char* use_full_path, const char* mirror_ssl);
// A copy of job `mid`, or of a new unsaved job with the next free id and
// placeholder values. *isnew (may be null) tells which.
MIRROR mirror_find(int mid, int* isnew = nullptr);
// Copies of the live jobs in list order.
std::vector<MIRROR> mirror_list();
// Saves the settings of `m` into the job of its id (created when missing) and
// queues it to run. The job's id.
int mirror_store(const MIRROR& m);
int mirror_delete(int mid);       // 1 if found
int mirror_retry(int mid);        // queues the job at once; 1 if found
int mirror_write();               // 1, or 0 with the error logged
void mirror_setlast(MIRROR* m, const std::string& reason);  // under the lock
std::string mirror_idfile(int id, const char* ext);
void mmsg(int id, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One run of a job, on the calling thread.
int mirror_check(const MirrorPtr& m);
// Ends the running job's current read (at shutdown).
void mirror_hurry();
// Runs every due job once; what the thread does each cycle.
void mirror_idle();

// Text tools of the engine.
void remove_path(std::string& pathnamefile, std::string_view path);
time_t date_to_time(const char* date);
std::string mirror_fixslash(std::string_view path);
// 1 if a listed name may become a local file name: no slash, backslash or
// NUL, not "." or "..", at most kMirrorNameMax bytes.
int mirror_name_ok(std::string_view name);
// 1 if `path` lies below `base` (lexically, after fixslash) and no directory
// on the way from `base` to it is a symbolic link.
int mirror_inside(const std::string& base, const std::string& path);
// One listing line for the mirror: ftp_decode, with entries that are neither
// files, directories nor links refused.
int mirror_decode(const char* line, std::string& fname, std::string& xdate, long long* sz, int* isdir, int* islink);
// mirrors.dat lines.
int mirror_parse_line(std::string_view line, MIRROR& out);
std::string mirror_format_line(const MIRROR& m);

}  // namespace korv
