// The manual as built into the program: its pages (one per screen) and the
// reference of every setting, generated at build time from doc/manual.txt and
// the settings table by tools/mkmanual.py.
#pragma once

namespace korv {

struct MANUAL_PAGE {
    const char* name;   // "global": served as /korvane/manual/global.htm
    const char* title;
    const char* html;   // the page's body, HTML
};

struct MANUAL_SETTING {
    const char* name;
    const char* type;     // "string", "int", "bool", "path", or "list of name=type ..."
    const char* dflt;     // "" when none
    const char* where;    // "global", "domain" or "class"
    const char* what;     // plain text
    const char* example;  // one configuration line
    const char* screen;   // the manual page (and editor) it belongs to
};

extern const MANUAL_PAGE manual_pages[];
extern const int manual_page_count;
extern const MANUAL_SETTING manual_settings[];
extern const int manual_setting_count;

}  // namespace korv
