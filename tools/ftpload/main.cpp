// ftpload: a load generator for any FTP server on loopback. Prints a table of figures and one
// machine-readable line per figure ("FIGURE\tlabel\tkey\tvalue\tunit\tname\treason").
//
//   ftpload -port P [-host H] [-user U] [-pass P] [-clients N] [-size MiB] [-tls-size MiB]
//           [-conc-size MiB] [-session-secs S] [-noops K] [-no-tls] [-label NAME] [-watch PID]
//   ftpload -loopback FILE [-label NAME]
#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/fmt.h"
#include "tools/ftpload/figures.h"

using namespace korv;

namespace {

const char* const kUsage =
    "usage: ftpload -port P [-host H] [-user U] [-pass P] [-clients N] [-size MiB] [-tls-size MiB]\n"
    "               [-conc-size MiB] [-session-secs S] [-noops K] [-no-tls] [-label NAME] [-watch PID]\n"
    "       ftpload -loopback FILE [-label NAME]\n";

// Proportional set size in KiB of one process (shared pages split among their sharers).
long pss_kib(int pid) {
    std::ifstream in(strfmt("/proc/%d/smaps_rollup", pid));
    std::string word;
    long kib = 0;
    while (in >> word)
        if (word == "Pss:") {
            in >> kib;
            return kib;
        }
    return 0;
}

// `root` and every process below it.
std::vector<int> process_tree(int root) {
    std::multimap<int, int> kids;
    if (DIR* d = opendir("/proc")) {
        while (dirent* e = readdir(d)) {
            int pid = std::atoi(e->d_name);
            if (pid <= 0) continue;
            std::ifstream in(strfmt("/proc/%d/stat", pid));
            std::string s;
            std::getline(in, s);
            size_t close = s.rfind(')');
            if (close == std::string::npos || close + 4 >= s.size()) continue;
            int ppid = std::atoi(s.c_str() + close + 4);  // ") S ppid"
            kids.emplace(ppid, pid);
        }
        closedir(d);
    }
    std::vector<int> out{root};
    for (size_t i = 0; i < out.size(); i++) {
        auto r = kids.equal_range(out[i]);
        for (auto it = r.first; it != r.second; ++it) out.push_back(it->second);
    }
    return out;
}

// Samples the memory of a server's process tree four times a second while the figures run.
class Watch {
public:
    explicit Watch(int pid) : pid_(pid), th_([this] { loop(); }) {}
    ~Watch() { stop(); }
    void stop() {
        {
            std::lock_guard<std::mutex> hold(m_);
            done_ = true;
        }
        cv_.notify_all();
        if (th_.joinable()) th_.join();
    }
    long peak_kib() const { return peak_.load(); }

private:
    void loop() {
        std::unique_lock<std::mutex> hold(m_);
        while (!done_) {
            hold.unlock();
            long sum = 0;
            for (int p : process_tree(pid_)) sum += pss_kib(p);
            if (sum > peak_.load()) peak_.store(sum);
            hold.lock();
            cv_.wait_for(hold, std::chrono::milliseconds(250), [this] { return done_; });
        }
    }
    int pid_;
    std::mutex m_;
    std::condition_variable cv_;
    bool done_ = false;
    std::atomic<long> peak_{0};
    std::thread th_;
};

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

void print(const std::string& label, const std::vector<Figure>& figs) {
    std::printf("%-50s %12s  %s\n", ("ftpload: " + label).c_str(), "value", "unit");
    for (const Figure& f : figs) {
        if (f.ok)
            std::printf("%-50s %12.2f  %s\n", f.name.c_str(), f.value, f.unit.c_str());
        else
            std::printf("%-50s %12s  %s (%.160s)\n", f.name.c_str(), "n/a", f.unit.c_str(), f.why.c_str());
    }
    for (const Figure& f : figs) {
        std::string why = f.why;
        for (char& c : why)
            if (c == '\t' || c == '\n' || c == '\r') c = ' ';
        std::printf("FIGURE\t%s\t%s\t%s\t%s\t%s\t%s\n", label.c_str(), f.key.c_str(),
                    f.ok ? strfmt("%.3f", f.value).c_str() : "n/a", f.unit.c_str(), f.name.c_str(), why.c_str());
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    LoadOpts o;
    std::string label = "server", loopback;
    int watch_pid = 0;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "-no-tls") {
            o.with_tls = false;
            continue;
        }
        if (i + 1 >= argc) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        const char* v = argv[++i];
        if (a == "-host") o.target.host = v;
        else if (a == "-port") o.target.port = std::atoi(v);
        else if (a == "-user") o.target.user = v;
        else if (a == "-pass") o.target.pass = v;
        else if (a == "-clients") o.clients = std::atoi(v);
        else if (a == "-size") o.big_mib = std::atoll(v);
        else if (a == "-tls-size") o.tls_mib = std::atoll(v);
        else if (a == "-conc-size") o.conc_mib = std::atoll(v);
        else if (a == "-session-secs") o.session_secs = std::atof(v);
        else if (a == "-noops") o.noops = std::atoi(v);
        else if (a == "-label") label = v;
        else if (a == "-watch") watch_pid = std::atoi(v);
        else if (a == "-loopback") loopback = v;
        else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (!loopback.empty()) {
        print(label, ftpload_loopback(loopback));
        return 0;
    }
    if (o.target.port <= 0 || o.clients < 1 || o.big_mib < 1 || o.tls_mib < 1 || o.conc_mib < 1 || o.noops < 1) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::unique_ptr<Watch> watch;
    if (watch_pid > 0) watch = std::make_unique<Watch>(watch_pid);
    double cpu0 = cpu_seconds();
    std::vector<Figure> figs = ftpload_run(o);
    Figure self;
    self.key = "client_cpu_s";
    self.name = "ftpload's own CPU";
    self.unit = "secs";
    self.value = cpu_seconds() - cpu0;
    self.ok = true;
    figs.push_back(self);
    if (watch) {
        watch->stop();
        Figure mem;
        mem.key = "server_peak_pss_mib";
        mem.name = "server's peak memory (PSS of its processes)";
        mem.unit = "MiB";
        mem.value = static_cast<double>(watch->peak_kib()) / 1024.0;
        mem.ok = watch->peak_kib() > 0;
        if (!mem.ok) mem.why = strfmt("no process %d", watch_pid);
        figs.push_back(mem);
    }
    print(label, figs);
    return 0;
}
