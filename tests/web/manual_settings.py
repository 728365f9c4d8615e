#!/usr/bin/env python3
"""Every setting of the settings table is documented in the manual (name,
type, default, where, what, example) and has a field on its editor, so that
the browser can change it.

    manual_settings.py SOURCE_DIR
"""
import os
import re
import sys
import unittest

SRC = None
# Settings a page writes from fields of other names, or never from the web.
COMPOSITE = {
    "vdomain": {"name", "address"},
    "class": {"type_real", "type_anonymous", "users", "from", "groups", "name", "class_name"},
    "dir": {"alias_||dirid||", "path_||dirid||", "read_||dirid||", "write_||dirid||"},
    "group_resource": {"group_||dirid||", "grouppath_||dirid||"},
    "ftphome_map": {"find_||mapid||", "map_||mapid||"},
}
READ_ONLY = {"home"}  # set by the installer; shown, not changed


class Manual(unittest.TestCase):
    def setUp(self):
        sys.path.insert(0, os.path.join(SRC, "doc"))
        import mkmanual
        self.mk = mkmanual
        self.table = mkmanual.read_table(os.path.join(SRC, "server/settings/ini_table.cpp"))
        self.screens, self.settings = mkmanual.read_source(os.path.join(SRC, "doc/manual.txt"))

    def test_table_is_read_whole(self):
        with open(os.path.join(SRC, "server/settings/ini.h")) as f:
            count = int(re.search(r"INI_COUNT\s*//\s*(\d+)", f.read()).group(1))
        self.assertEqual(len(self.table), count)

    def test_every_setting_documented(self):
        self.assertEqual(self.mk.check(self.table, self.screens, self.settings), [])

    def test_a_missing_or_stray_entry_is_named(self):
        settings = dict(self.settings)
        del settings["limit_speed"]
        settings["no_such_setting"] = {"what": "x", "screen": "class", "example": "no_such_setting 1"}
        errors = self.mk.check(self.table, self.screens, settings)
        self.assertIn("setting limit_speed is not documented", errors)
        self.assertIn("no_such_setting is documented but is no setting", errors)

    def test_every_setting_has_a_field(self):
        pages = {}
        for where, page in (("global", "global.htm"), ("domain", "domain.htm"), ("class", "class.htm")):
            with open(os.path.join(SRC, "web", page)) as f:
                pages[where] = set(re.findall(r'name="([^"]+)"', f.read()))
        for name, _type, _dflt, where in self.table:
            if name in READ_ONLY:
                continue
            with self.subTest(setting=name):
                wanted = COMPOSITE.get(name, {name})
                self.assertEqual(wanted - pages[where], set(), "no field on the %s page" % where)

    def test_outputs(self):
        import tempfile
        with tempfile.TemporaryDirectory() as d:
            self.mk.write_man(os.path.join(d, "k.5"), self.table, self.screens, self.settings)
            self.mk.write_cpp(os.path.join(d, "m.cpp"), self.table, self.screens, self.settings)
            man = open(os.path.join(d, "k.5")).read()
            cpp = open(os.path.join(d, "m.cpp")).read()
        self.assertTrue(man.startswith(".TH KORVANE.INI 5"))
        for name, _t, _d, _w in self.table:
            self.assertIn(".B " + name.replace("-", "\\-"), man)
            self.assertIn('{"%s", ' % name, cpp)
        # A quote or backslash in the text stays a valid C++ literal.
        self.assertIn('banner \\"Welcome.\\\\nYour paths: %virtual_paths%\\"', cpp)


if __name__ == "__main__":
    SRC = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
