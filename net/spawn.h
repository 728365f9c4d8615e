// Child processes: starting a program without a shell with its three standard streams on pipes,
// timed reads, staged termination, the list of children reaped later, and the spawn environment.
#pragma once

#include <string>
#include <vector>

namespace korv {

constexpr int kSpawnExecFailed = 99;    // exit code of a child whose program could not run
constexpr int kSpawnAbnormalExit = 97;  // exit code stored for a signal or an unknown status
constexpr int kSpawnMaxArgs = 49;
constexpr int kSpawnCmdMax = 998;
constexpr int kSpawnEnvMax = 200;

struct osspawn_info {
    int pid = 0;
    int exitcode = 0;
    int use_pipes = 0;   // 1 while the three pipes exist
    int std_input = 0;   // the parent's write end of the child's input
    int std_output = 0;  // the parent's read end of the child's output
    int std_error = 0;   // the parent's read end of the child's errors
    int reaped = 0;      // 1 once the child's end has been collected: its pid is never signalled again
};

// `reason` may be null everywhere.
int osspawn_create(const char* quoted_cmds, std::string* reason, int use_std_pipes, osspawn_info* pinfo);
int libspawn_create(const char* quoted_cmds, std::string* reason, int use_std_pipes, osspawn_info* pinfo);
// `program` is split at blanks like a command line (a program with its own
// options); each of `args` follows as one argument exactly as given, blanks
// and quotes included.
int libspawn_create_args(const char* program, const std::vector<std::string>& args, std::string* reason,
                         int use_std_pipes, osspawn_info* pinfo);
int osspawn_raw(char** args, const char* quoted_cmd, char** env, std::string* reason, int need_std_handles,
                osspawn_info* pinfo);
int osspawn_is_process_finished(osspawn_info* pinfo, std::string* reason);
int osspawn_close_pipe(int h);
int osspawn_close_all_pipes(osspawn_info* pinfo, int* n);
int osspawn_readpipe(int h, char* bf, int len, std::string* reason);
int osspawn_writepipe(int h, const char* bf, int len, std::string* reason);
int osspawn_ready_to_read_pipe(int h, int* n_available, std::string* reason);
int osspawn_close_on_exec(int fd);

// The spawn environment. While it is empty, children get the server's own environment.
std::string spawn_mygetenv(const char* s);
void ex_init_env(char** env);
int ex_init_addenv(const char* label, const char* value);
int ex_env_count();

// Environment arrays built by a caller: a vector of owned strings.
using SpawnEnv = std::vector<std::string>;
int lib_spawn_addenv(SpawnEnv& env, const char* var, const char* val);
int lib_spawn_addenv_real(SpawnEnv& env, const char* bf);
int lib_spawn_freeenv(SpawnEnv& env);
int lib_spawn_setenv(SpawnEnv& env);

int libspawn_is_process_finished(osspawn_info* pinfo, double waitfor_secs, std::string* reason);
int libspawn_read_timed(int h, char* bf, int len, double waitsecs, std::string* reason);
int libspawn_ready_to_read_stdout(osspawn_info* p);
int libspawn_read_timed_stdout(osspawn_info* p, char* bf, int len, double waitsecs, std::string* reason);
int libspawn_read_timed_stderr(osspawn_info* p, char* bf, int len, double waitsecs, std::string* reason);
int libspawn_write_stdin(osspawn_info* p, const char* bf, int len, std::string* reason);
int libspawn_terminate(osspawn_info* pinfo, double termwait, double killwait, std::string* reason);

// Children to be reaped later (the idle loop calls libspawn_waiting).
struct single_list {
    std::vector<osspawn_info> items;
};
using SpawnMsgFn = void (*)(int pid, int exitcode, const char* reason, void* your_ptr);
int libspawn_autowaitforend(single_list* processlist, osspawn_info* pinfo, double waitfor_secs,
                            std::string* reason);
int libspawn_waiting(single_list* processlist, SpawnMsgFn msg_fn, void* your_ptr);
int libspawn_terminate_all(single_list* processlist);

// A child its starter stopped waiting for is reaped later by its own pid
// (nothing here waits for any child but ours): libspawn_reap_later hands it
// over (its pipes stay with the caller), libspawn_reap_pending collects those
// that have ended and returns how many are still running.
int libspawn_reap_later(osspawn_info* pinfo);
int libspawn_reap_pending();

}  // namespace korv
