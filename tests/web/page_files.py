#!/usr/bin/env python3
"""The files of web/ against the rules the server renders them by: directives
cut where the engine cuts them, conditionals balanced, lists only where a page
has one, includes and images that exist, only the variables and generators
the handlers set, forms that post to the admin program with buttons it knows,
labels that name a field, and nothing fetched from elsewhere or scripted.

    page_files.py WEB_DIR
"""
import html.parser
import os
import re
import struct
import sys
import unittest

WEB = None

HEAD = ('<!DOCTYPE html><html lang="en"><head><meta charset="utf-8"><meta name="viewport" '
        'content="width=device-width, initial-scale=1"><title>Korvane - ')
FRAGMENTS = {"body.htm", "end.htm", "table.htm"}
LINE_MAX = 998  # each read of a page file

# Variables of every page, set by the router.
EVERY_PAGE = {"cgi", "domainid", "classid", "class_name", "domain", "server_message", "ftp_stopped",
              "server_local_time", "unique", "showing_template", "global_pressed", "mirrors_pressed",
              "graph_pressed", "log_pressed", "onoff_pressed", "report_pressed", "status_pressed",
              "users_pressed"}

GLOBAL_SETTINGS = {
    "log_level", "log_home", "log_dayly_roll", "log_cmd_size", "authent_process", "authent_cmdopts",
    "authent_number", "global_noquota", "global_nochmod", "global_utf8", "authent_nocache", "authent_domain",
    "no_suffix_default_domain", "global_strip_user_domain", "global_smtp", "global_ssl", "global_ssl_cipher_list",
    "global_ssl_require_client_certificate", "global_logon_mode", "global_log_host", "global_implicit_port",
    "global_style", "global_bind", "global_passive_ip", "global_passive_match", "global_adminip",
    "global_watcher_program_ul", "global_watcher_program_dl", "global_anon_hammer_active",
    "global_anon_hammer_over_time", "global_anon_hammer_max", "global_anon_hammer_block_time", "global_con_perip",
    "global_total_users", "global_port", "global_mgr_port", "global_noclass", "global_mgr_ssl_port",
    "global_lookup_names", "global_only_unix", "global_restart", "global_nosymlink", "global_thread_reuse",
    "global_log_flush", "unix_list", "global_ssl_disable_sslv2", "global_ssl_disable_tlsv1", "global_login_error",
    "global_nfs_impersonate", "global_nt_domain"}
DOMAIN_FIELDS = {"name", "address", "deny", "email", "deny_msg", "domain_authent_process", "domain_authent_cmdopts",
                 "domain_authentication_prefix", "domain_authentication_suffix", "greetings", "log_max_age",
                 "loginfails", "passwd_check"}
CLASS_SETTINGS = {"users", "name", "groups", "from", "passive_ipnumber", "passive_port", "passive_port_max",
                  "user_home", "user_home_hashing", "umask", "actas_user", "quota_default", "log_cmd_size",
                  "dailyquota", "new_user_program", "noretrieve", "noupload", "ssl", "ftp_proxy", "user_noimpersonate",
                  "mkdir_auto", "force_lower_home", "list_aliases", "user_impersonate", "banner", "limit_users",
                  "limit_peruser", "limit_speed", "limit_speed_up", "limit_mb", "limit_time", "limit_con_perip",
                  "type_real", "type_anonymous"}
PATH_ROW = {"dirid", "alias", "path", "read", "write", "nodel", "nolist", "nomkdir"}
MIRROR = {"mid", "remote_host", "remote_path", "files", "lcl", "subdir", "trim", "xdelay", "user", "pass",
          "use_full_path", "mirror_ssl", "last_error", "last_run", "next_run", "mirror_message", "mirror_error"}
REPORT_FORM = {"email", "frequency", "domain", "filter", "when_hr", "when_min", "ul", "dl", "top10", "full_list",
               "problems", "size", "single"}

# What each file of ours may name: variables (a `_checked` form counts for its
# setting), generators, and the ids of its lists with the names each list sets.
PAGES = {
    "body.htm": {"vars": set()},
    "end.htm": {"vars": set()},
    "table.htm": {"vars": {"form_error", "form_error_field"}},
    "dump.htm": {"gens": {"do_dump"}},
    "top.htm": {"gens": {"domain_tree"}},
    "index.htm": {"vars": {"search"}, "gens": {"setting_description"}},
    "global.htm": {"vars": GLOBAL_SETTINGS | {"authent_name", "omauth_exe", "home"}, "gens": {"known_auth_exe_list"},
                   "checked": GLOBAL_SETTINGS},
    "domain.htm": {"vars": DOMAIN_FIELDS | {"passwd_0", "passwd_1", "passwd_2", "is_domain", "candelete"},
                   "gens": {"domain_option_list", "domain_auth_option_list"},
                   "lists": {"": {"classid", "class_name", "domainid", "type", "users", "name", "groups", "from",
                                  "address", "domain"}}},
    "class.htm": {"vars": CLASS_SETTINGS,
                  "lists": {"": PATH_ROW, "_group_resource": PATH_ROW | {"group"}, "_map": {"mapid", "find", "map"}}},
    "mirror.htm": {"lists": {"": MIRROR}, "checked": MIRROR},
    "mirrors.htm": {"lists": {"": MIRROR}},
    "report.htm": {"vars": {"report_message", "report_error"},
                   "gens": {"do_email_report_list", "report_domain_options"}},
}
# Files with list rows in the engine's table, and the ids they may open.
LIST_IDS = {"class.htm": {"_map", "_group_resource", ""}, "domain.htm": {""}, "graph.htm": {""}, "log.htm": {""},
            "mirror.htm": {""}, "mirrors.htm": {""}, "top.htm": {""}, "status.htm": {""}}
# Every button the admin program acts on.
BUTTONS = {"cmd_shutdown", "cmd_openmore", "cmd_stop", "cmd_start", "cmd_restart", "cmd_class_delete",
           "cmd_class_save", "cmd_global_save", "cmd_domain", "cmd_domain_save", "cmd_domain_delete", "cmd_domains",
           "cmd_ereport_delete", "cmd_ereport_send", "cmd_mirrors", "cmd_mirror_save", "cmd_mirror_log", "cmd_mirror_retry",
           "cmd_mirror_delete", "cmd_status", "cmd_dump", "cmd_log", "cmd_add_report", "cmd_report", "cmd_graph",
           "cmd_global", "cmd_misc", "cmd_search_help", "cmd_user_admin", "cmd_user_lookup", "cmd_user_save",
           "cmd_user_create", "cmd_user_delete", "cmd_user_wild_search"}
# What each settings form posts, beside its buttons: the names the save handlers read.
FORM_FIELDS = {
    "global.htm": GLOBAL_SETTINGS,
    "domain.htm": DOMAIN_FIELDS | {"choose_domain"},
    "class.htm": CLASS_SETTINGS | {"class_name"},
    "mirror.htm": MIRROR - {"last_error", "last_run", "next_run", "mirror_message", "mirror_error"},
    "report.htm": REPORT_FORM,
}
ROW_FIELD = re.compile(r"^(alias|path|read|write|nodel|nolist|nomkdir|group|groupalias|grouppath|groupread|"
                       r"groupwrite|groupnodel|groupnolist|groupnomkdir|find|map)_\|\|(dirid|mapid)\|\|$")


def pieces(text):
    """The pieces the engine hands on: literal text up to a bar, then from the
    bar up to a blank, '<' or '>'."""
    out, i = [], 0
    while i < len(text):
        j = text.find("|", i)
        if j < 0:
            out.append(text[i:])
            break
        if j > i:
            out.append(text[i:j])
        k = j
        while k < len(text) and text[k] not in " <>":
            k += 1
        out.append(text[j:k])
        i = k
    return out


def names_in(piece):
    """The names between pairs of bars in a substituted piece."""
    return re.findall(r"\|\|([^|]*)\|\|", piece)


def read(name):
    with open(os.path.join(WEB, name), encoding="utf-8") as f:
        return f.read()


def pages():
    return sorted(n for n in os.listdir(WEB) if n.endswith(".htm") and n in PAGES)


class Tags(html.parser.HTMLParser):
    """Forms, inputs, labels, ids and references of a page, as a browser reads them."""

    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.forms, self.ids, self.label_for, self.refs, self.scripts = [], [], [], [], 0
        self.form = None

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        if a.get("id"):
            self.ids.append(a["id"])
        if tag == "script" or any(k.startswith("on") for k in a):
            self.scripts += 1
        for k in ("href", "src", "action"):
            if a.get(k) is not None:
                self.refs.append(a[k])
        if tag == "form":
            self.form = {"attrs": a, "names": [], "buttons": []}
            self.forms.append(self.form)
        elif tag in ("input", "select", "textarea", "button") and self.form is not None:
            name = a.get("name")
            kind = a.get("type", "submit" if tag == "button" else "text")
            if name and (kind in ("submit", "image") and tag in ("input", "button")):
                self.form["buttons"].append(name)
            elif name:
                self.form["names"].append(name)
        elif tag == "label" and a.get("for"):
            self.label_for.append(a["for"])

    def handle_endtag(self, tag):
        if tag == "form":
            self.form = None


def expanded(name, seen=()):
    """The page as the browser gets it for its markup: includes put in place."""
    text = read(name)
    return re.sub(r"\|\|include\|\|([^|\s<>]+)\|\|", lambda m: expanded(m.group(1), seen + (name,))
                  if m.group(1) not in seen else "", text)


class Directives(unittest.TestCase):
    def test_every_line_fits_one_read(self):
        for name in pages():
            for n, line in enumerate(read(name).splitlines(True), 1):
                self.assertLessEqual(len(line), LINE_MAX, "%s:%d" % (name, n))

    def test_conditionals_balance_and_lists_pair(self):
        for name in pages():
            depth, open_list = 0, None
            for n, line in enumerate(read(name).splitlines(True), 1):
                where = "%s:%d" % (name, n)
                for p in pieces(line):
                    if p.startswith("||ifdef||") or p.startswith("||ifequal||"):
                        depth += 1
                    elif p.startswith("||endif||"):
                        depth -= 1
                        self.assertGreaterEqual(depth, 0, where + ": endif without if")
                    elif p.startswith("||begin_list"):
                        lid = re.match(r"\|\|begin_list([^|]*)\|\|", p)
                        self.assertTrue(lid, where)
                        self.assertIn(lid.group(1), LIST_IDS.get(name, set()), where + ": no list of this id here")
                        self.assertIsNone(open_list, where + ": lists do not nest")
                        open_list = lid.group(1)
                    elif p.startswith("||end_list"):
                        self.assertEqual(p.split("||")[1], "end_list" + (open_list if open_list is not None else "?"), where)
                        open_list = None
            self.assertEqual(depth, 0, name + ": conditionals left open")
            self.assertIsNone(open_list, name + ": list left open")

    def test_directives_are_whole_and_known(self):
        """A directive cut by a blank or '<' loses its end; a name no handler
        sets renders as nothing, silently."""
        for name in pages():
            rules = PAGES[name]
            known = EVERY_PAGE | rules.get("vars", set()) | rules.get("gens", set())
            checked = rules.get("checked", set()) | rules.get("vars", set())
            list_vars = set().union(*rules.get("lists", {}).values()) if rules.get("lists") else set()
            for n, line in enumerate(read(name).splitlines(), 1):
                where = "%s:%d" % (name, n)
                for p in pieces(line):
                    if not p.startswith("|"):
                        continue
                    self.assertTrue(p.startswith("||"), where + ": a lone bar in the text: " + p)
                    m = re.match(r"\|\|(ifdef|ifequal|include)\|\|", p)
                    if m:
                        args = p[len(m.group(0)):].split("||")
                        self.assertTrue(args[0], where)
                        if m.group(1) == "include":
                            self.assertTrue(os.path.exists(os.path.join(WEB, args[0])), where + ": no " + args[0])
                            continue
                        want = 2 if m.group(1) == "ifequal" else 1
                        self.assertGreaterEqual(len(args), want + 1, where + ": cut short: " + p)
                        args = args[:1]  # the right side of ifequal may be a word
                    elif re.match(r"\|\|(else|endif|begin_list|end_list)", p):
                        continue
                    else:
                        args = names_in(p)
                        self.assertTrue(args, where + ": unclosed directive " + p)
                    for a in args:
                        base = a[:-len("_checked")] if a.endswith("_checked") else a
                        if a.endswith("_checked"):
                            self.assertIn(base, checked, where + ": " + a)
                        else:
                            self.assertIn(a, known | list_vars, where + ": nothing sets " + a)


class Markup(unittest.TestCase):
    def test_pages_share_the_frame(self):
        for name in pages():
            if name in FRAGMENTS:
                continue
            text = read(name)
            self.assertTrue(text.startswith(HEAD), name)
            self.assertIn('<link rel="stylesheet" href="/web/korvane.css"></head>\n||include||body.htm||', text, name)
            self.assertTrue(text.rstrip().endswith("||include||end.htm||"), name)
        body, end = read("body.htm"), read("end.htm")
        self.assertIn("<main", body)
        self.assertIn("</main>", end)
        self.assertTrue(end.rstrip().endswith("</html>"))
        for var in ("global_pressed", "mirrors_pressed", "graph_pressed", "log_pressed", "onoff_pressed",
                    "report_pressed", "status_pressed", "users_pressed"):
            self.assertIn('class="nav||%s||"' % var, body, var)

    def test_forms_post_known_names(self):
        for name in pages():
            if name in FRAGMENTS:
                continue
            t = Tags()
            t.feed(expanded(name))
            for form in t.forms:
                where = "%s form %s" % (name, form["buttons"])
                self.assertEqual(form["attrs"].get("method"), "POST", where)
                self.assertEqual(form["attrs"].get("action"), "||cgi||", where)
                self.assertTrue(form["buttons"], where + ": no button")
                for b in form["buttons"]:
                    self.assertIn(b, BUTTONS, where)
                if name in FORM_FIELDS and len(form["names"]) > 3:
                    self.assertIn("domainid", form["names"], where)
                    self.assertIn("classid", form["names"], where)
                    for field in form["names"]:
                        if field in ("domainid", "classid") or ROW_FIELD.match(field):
                            continue
                        self.assertIn(field, FORM_FIELDS[name], where + ": the save reads no " + field)
            self.assertEqual(t.scripts, 0, name + ": script")

    def test_labels_name_fields_and_ids_are_unique(self):
        for name in pages():
            if name in FRAGMENTS:
                continue
            t = Tags()
            t.feed(expanded(name))
            dup = {i for i in t.ids if t.ids.count(i) > 1 and "||" not in i}
            self.assertEqual(dup, set(), name)
            for target in t.label_for:
                self.assertIn(target, t.ids, name + ": label for nothing")

    def test_nothing_from_elsewhere(self):
        for name in sorted(os.listdir(WEB)):
            if not name.endswith((".htm", ".css")):
                continue
            text = read(name)
            t = Tags()
            t.feed(expanded(name) if name.endswith(".htm") else "")
            for ref in t.refs:
                self.assertFalse(re.match(r"^(\w+:)?//", ref) and not ref.startswith("||"), name + ": " + ref)
                if ref.startswith("/web/"):
                    self.assertTrue(os.path.exists(os.path.join(WEB, ref[5:])), name + ": missing " + ref)
            self.assertNotRegex(text, r"(?i)@import|@font-face|url\(\s*['\"]?(https?:)?//|<script|javascript:")

    def test_images_are_pngs(self):
        for name in ("help.png", "searchnow.png"):
            with open(os.path.join(WEB, name), "rb") as f:
                data = f.read()
            self.assertEqual(data[:8], b"\x89PNG\r\n\x1a\n", name)
            w, h = struct.unpack(">II", data[16:24])
            self.assertTrue(0 < w <= 512 and 0 < h <= 512, name)


if __name__ == "__main__":
    WEB = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
