"""RemoveFileEx through real msiexec: recursive removal with emptied folders
that commit makes final, patterns, a link inside a removed folder (its target
survives), refused system folders, the major-upgrade rule, and the immediate,
commit and restart phases. The forced rollbacks are in test_fault_injection."""

import os
import shutil
import unittest

from machine_state import old_file
from msipackage import InstallerCase, library_lines

INSTALL, UNINSTALL, RECURSIVE, EMPTY, STRICT, UPGRADE = 0x1, 0x2, 0x8, 0x10, 0x20, 0x40
DEFERRED, IMMEDIATE, COMMIT, ROLLBACK_ONLY, AT_RESTART = 0, 1, 2, 3, 4


class RemoveFiles(InstallerCase):
    clears_renames = True

    def setUp(self):
        super().setUp()
        self.win = "C:\\rfx\\" + self.name
        self.root = self.prefix.host_path(self.win)
        shutil.rmtree(self.prefix.host_path("C:\\rfx"), ignore_errors=True)
        self.root.mkdir(parents=True)

    def file(self, name):
        return old_file(self.root / name.replace("\\", os.sep), name.encode())

    def tree(self):
        """data\\ with files two levels deep and a link to a folder outside it;
        logs\\ with .log files among others."""
        for name in ("data\\a.txt", "data\\sub\\b.log", "data\\sub\\deeper\\c.log", "outside\\precious.txt",
                     "logs\\1.log", "logs\\2.LOG", "logs\\keep.txt", "logs\\sub\\3.log"):
            self.file(name)
        os.symlink(self.root / "outside", self.root / "data" / "link")

    def package(self, rows, fail_at=None, **properties):
        return self.table_package("RemoveFileEx", [(i, "Main", p, str(ph), str(a), c) for i, p, ph, a, c in rows],
                                  fail_at=fail_at, **properties)

    def names(self):
        return sorted(str(p.relative_to(self.root)).replace(os.sep, "\\") for p in self.root.rglob("*"))

    def rows(self):
        w = self.win
        return [("Data", f"{w}\\data", DEFERRED, INSTALL | RECURSIVE | EMPTY, ""),
                ("Logs", f"{w}\\logs\\*.log", DEFERRED, INSTALL, "")]

    def test_deferred_removal_recursive_patterns_links_and_commit(self):
        self.tree()
        log = self.run_expecting(0, self.package(self.rows()), "/i")
        # data\ lost everything but the link (never entered nor removed: what
        # it points to is intact) and the folders holding it; only the .log
        # files directly in logs\ went; no backup is left.
        self.assertEqual(self.names(), ["data", "data\\link", "logs", "logs\\keep.txt", "logs\\sub",
                                        "logs\\sub\\3.log", "outside", "outside\\precious.txt"])
        self.assertEqual((self.root / "outside" / "precious.txt").read_bytes(), b"outside\\precious.txt")
        # The deferred and commit rows run the one entry point, under its name.
        lines = library_lines(log, "RemoveFilesExFinalize")
        self.assertIn(f"Leave the link '{self.win}\\data\\link' in place: a link is never entered or removed, so "
                      "what it points to is safe.", lines)
        self.assertIn(f"Remove folder '{self.win}\\data\\sub\\deeper'.", lines)
        self.assertTrue(any(line.startswith("Cleanup folder ") for line in lines))

    def test_refused_folders_the_upgrade_rule_and_the_other_phases(self):
        w = self.win
        self.file("now\\x.txt")
        self.file("commit\\y.txt")
        self.file("later\\z.txt")
        rows = [("Windows", "[WindowsFolder]", DEFERRED, INSTALL | RECURSIVE, ""),
                ("Root", "C:\\*.txt", IMMEDIATE, INSTALL, ""),
                ("Now", f"{w}\\now\\*", IMMEDIATE, INSTALL, ""),
                ("OnCommit", f"{w}\\commit\\", COMMIT, INSTALL | EMPTY, ""),
                ("Later", f"{w}\\later\\", AT_RESTART, INSTALL | EMPTY, ""),
                ("OnUninstall", f"{w}\\now", DEFERRED, UNINSTALL, "")]
        log = self.run_expecting(0, self.package(rows), "/i")
        immediate = library_lines(log, "RemoveFilesEx")
        self.assertTrue(any(line.startswith("Refused to remove files 'Windows', 'C:\\windows")
                            and "it is a system folder" in line for line in library_lines(log, "RemoveFilesExFinalize")),
                        log[-3000:])
        self.assertIn("Refused to remove files 'Root', 'C:\\*.txt': it is the root of a drive or share.", immediate)
        self.assertIn("Skip remove files 'OnUninstall', '" + w + "\\now'. Component action 1 is not suitable.",
                      immediate)
        self.assertEqual(self.names(), ["later", "later\\z.txt", "now"])
        renames = self.prefix.pending_renames()
        later = [s for s, t in renames if t == ""]
        self.assertEqual(later[-2:], [f"\\??\\{w}\\later\\z.txt", f"\\??\\{w}\\later"])  # files before their folder

        # A strict refused row fails the install; during a major upgrade a row without 0x40 is skipped.
        strict = self.package([("Windows", "[WindowsFolder]", DEFERRED, INSTALL | STRICT, "")])
        log = self.run_expecting(1603, strict, "/i", log="strict.log")
        upgrade = self.package([("Now", f"{w}\\later\\z.txt", IMMEDIATE, INSTALL, ""),
                                ("Forced", f"{w}\\later\\", IMMEDIATE, INSTALL | UPGRADE | RECURSIVE, "")],
                               UPGRADINGPRODUCTCODE="{00000000-0000-0000-0000-000000000001}")
        log = self.run_expecting(0, upgrade, "/i", log="upgrade.log")
        self.assertTrue(any("A major upgrade is removing this product" in line
                            for line in library_lines(log, "RemoveFilesEx")), log[-3000:])
        self.assertIn(f"Remove file '{w}\\later\\z.txt'.", library_lines(log, "RemoveFilesEx"))


if __name__ == "__main__":
    unittest.main()
