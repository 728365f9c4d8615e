// omauth's side of the module protocol: one request line in, the reply lines out, against the
// users file, which is read again whenever it changes on disk.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/omauth/userfile.h"

namespace korv::omauth {

class Module {
public:
    // `say` gets each reply line, without its LF. `note` gets operator diagnostics.
    Module(std::string path, std::function<void(std::string_view)> say,
           std::function<void(std::string_view)> note);

    // Answers one request. False for "exit": the module should end.
    bool handle(std::string_view line);

private:
    bool fresh(std::string& err);  // the users as on disk now
    void check(std::string_view user, std::string_view pass);
    void lookup(std::string_view user);
    void set(std::string_view user, std::string_view pass, std::string_view info);
    void del(std::string_view user);
    void search(std::string_view wild);
    void unavailable(std::string_view user, const std::string& err);

    std::string path_;
    std::function<void(std::string_view)> say_;
    std::function<void(std::string_view)> note_;
    UserFile uf_;
    bool loaded_ = false;
    std::string stamp_;  // inode, size and time of the file as loaded
};

}  // namespace korv::omauth
