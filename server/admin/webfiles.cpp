// The table of page sources and its writer: puts the main admin pages built
// into the program back on disk, for installing a web directory.
#include "server/admin/webfiles.h"

#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "base/fmt.h"
#include "server/admin/webpages_embedded.h"

namespace korv {

namespace {

struct PageRow {
    const char* location;
    const char* title;
};

const PageRow kPages[] = {
    {"/web/global.htm", "Global"}, {"/web/mirror.htm", "Mirror"}, {"/web/mirrors.htm", "Mirrors"},
    {"/web/domain.htm", "Domain"}, {"/web/class.htm", "Class"},   {"/web/report.htm", "Report"},
    {"/web/status.htm", "Status"}, {"/web/log.htm", "Log"},
};
constexpr int kPageCount = sizeof kPages / sizeof kPages[0];

std::string_view embedded_text(const char* location) {
    const char* name = strrchr(location, '/') + 1;
    for (int i = 0; i < embedded_page_count; i++)
        if (strcasecmp(embedded_pages[i].name, name) == 0) return {embedded_pages[i].text, embedded_pages[i].len};
    return {};
}

struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};

// The folders of a fresh install directory do not exist yet.
void make_parents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        ::mkdir(path.substr(0, slash).c_str(), 0755);
}

}  // namespace

const SERV_TABLE* serv_table(int* n) {
    static const auto table = [] {
        auto t = std::make_unique<SERV_TABLE[]>(kPageCount);
        for (int i = 0; i < kPageCount; i++) t[i] = {kPages[i].location, kPages[i].title, embedded_text(kPages[i].location)};
        return t;
    }();
    *n = kPageCount;
    return table.get();
}

int output_web_file_from_table(const char* dir, const char* plusfilepath, const char* title, std::string_view table) {
    std::string path = strfmt("%s/%s", dir, plusfilepath);
    std::printf("Outputting %s file to %s\n", title, path.c_str());
    if (table.empty()) {
        std::printf("cannot output to file, (%s) %s\n", path.c_str(), "the page was not built into this program");
        return 0;
    }
    make_parents(path);
    std::unique_ptr<FILE, FileClose> f(std::fopen(path.c_str(), "w"));
    if (!f) {
        std::printf("cannot output to file, (%s) %s\n", path.c_str(), strerror(errno));
        return 0;
    }
    int ok = 1;
    while (!table.empty() && ok) {
        size_t end = table.find('\n');
        std::string line(table.substr(0, end));
        table.remove_prefix(end == std::string_view::npos ? table.size() : end + 1);
        if (std::fprintf(f.get(), "%s\n", line.c_str()) < 0) {
            std::printf("outputing to file, %s\n", path.c_str());
            ok = 0;
        }
    }
    if (std::fclose(f.release()) != 0) {
        std::printf("closing file, %s\n", path.c_str());
        ok = 0;
    }
    return ok;
}

int output_web_files(const char* dir) {
    int n = 0;
    const SERV_TABLE* t = serv_table(&n);
    int all = 1;
    for (int i = 0; i < n; i++)
        if (!output_web_file_from_table(dir, t[i].table_location, t[i].table_title, t[i].table)) all = 0;
    std::fflush(stdout);
    return all;
}

}  // namespace korv
