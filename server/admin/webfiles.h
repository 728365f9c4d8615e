// The table of page sources: the text of the eight main admin pages, built
// into the program, and their writer for `-output_web_files DIR`.
#pragma once

#include <string_view>

namespace korv {

struct SERV_TABLE {
    const char* table_location;  // joined to the output directory: "/web/global.htm"
    const char* table_title;
    std::string_view table;      // the page's text, lines ending in '\n'; empty if it was not built in
};
using ServTable = SERV_TABLE;

// The eight rows, in order; `n` receives their count.
const SERV_TABLE* serv_table(int* n);

// Writes every page to `dir` joined with its location. 1 when all were
// written, 0 otherwise (each failure is printed).
int output_web_files(const char* dir);
// Writes one page, each line with "%s\n". 1, or 0 after printing why.
int output_web_file_from_table(const char* dir, const char* plusfilepath, const char* title, std::string_view table);

}  // namespace korv
