import re
import unittest

from machine_state import HeldFile
from msipackage import InstallerCase, library_lines

ACTIONS = ("InstallTextFiles", "InstallTextFilesDeferred", "InstallTextFilesRollback", "InstallTextFilesCommit")


def utf16(text):
    """The bytes the library writes: BOM, UTF-16LE, one CR LF per line feed."""
    return b"\xff\xfe" + text.replace("\n", "\r\n").encode("utf-16-le")


class TextFiles(InstallerCase):
    clears_renames = True

    def make(self, rows, table_header=None, **properties):
        package = self.table_package("TextFile", rows or [], **properties).use_kit(*ACTIONS)
        if rows is None:
            del package.tables["TextFile"]
        elif table_header:
            package.tables["TextFile"] = (table_header, package.tables["TextFile"][1])
        return package

    def test_install_writes_formatted_content_and_leaves_no_backup(self):
        package = self.make([
            ("L1", "[INSTALLDIR]app.ini", "[ProductName]", "Main", ""),
            ("L2", "[INSTALLDIR]app.ini", "version=[ProductVersion] <=> 1", "Main", ""),
            ("L3", "[INSTALLDIR]app.ini", "[\\[]section[\\]]", "Main", ""),
            ("L4", "[INSTALLDIR]one.txt", "single", "Main", "1=1"),
            ("L5", "[INSTALLDIR][\\[]ProductName[\\]] notes.txt", "n", "Main", ""),
        ])
        target = package.install_dir(self.prefix)
        log = self.run_expecting(0, package, "/i", "LOGVERBOSE=1")  # verbose: the content is logged in full
        # First row as it is, each later row followed by a line feed.
        self.assertEqual((target / "app.ini").read_bytes(), utf16(package.name + "version=1.0.0 <=> 1\n[section]\n"))
        self.assertEqual((target / "one.txt").read_bytes(), utf16("single"))
        self.assertEqual(sorted(p.name for p in target.iterdir()),
                         ["[ProductName] notes.txt", "app.ini", "one.txt", "readme.txt"])
        win_target = "C:\\Program Files\\" + package.directory + "\\app.ini"
        # The logged copy loses its brackets; the file keeps them.
        self.assertTrue(any("section\n" in line or line.endswith("section") for line in log.splitlines()), log)
        self.assertIn(f"Write to file '{win_target}'.", library_lines(log, "InstallTextFilesDeferred"))
        # A name holding brackets is logged as it is, never expanded.
        notes = "C:\\Program Files\\" + package.directory + "\\[ProductName] notes.txt"
        self.assertIn(f"Write to file '{notes}'.", library_lines(log, "InstallTextFilesDeferred"))
        self.assertEqual(library_lines(log, "InstallTextFilesCommit")[-1],
                         "InstallTextFilesCommit: finished. Return value 0.")
        # Scheduled in this order, so that a failure inside the deferred action
        # rolls back what it did (Wine logs each scheduling call as an action start).
        starts = [re.search(r"^Action start [\d:]+: (InstallTextFiles\w+)\.$", line, re.M)
                  for line in log.splitlines()]
        scheduled = [m.group(1) for m in starts if m][:3]
        self.assertEqual(scheduled, ["InstallTextFilesRollback", "InstallTextFilesDeferred", "InstallTextFilesCommit"])

    def test_a_read_only_target_is_written_and_its_backup_removed_by_commit(self):
        # Wine lets its root user write a read-only file; the backup keeps the
        # attribute, and the commit must still delete it now, not at restart.
        package = self.make([("L1", "[INSTALLDIR]ro.ini", "new", "Main", "")])
        target = package.install_dir(self.prefix)
        target.mkdir(parents=True)
        (target / "ro.ini").write_bytes(utf16("old"))
        (target / "ro.ini").chmod(0o444)
        self.run_expecting(0, package, "/i")
        self.assertEqual(sorted(p.name for p in target.iterdir()), ["readme.txt", "ro.ini"])
        self.assertEqual(self.prefix.pending_renames(), [])

    def test_lock_files_on_update_replaces_the_target_at_restart(self):
        package = self.make([("L1", "[INSTALLDIR]locked.ini", "replaced", "Main", "")], LOCKFILESONUPDATE="1")
        target = package.install_dir(self.prefix)
        target.mkdir(parents=True)
        (target / "locked.ini").write_bytes(utf16("original"))
        win_target = "C:\\Program Files\\" + package.directory + "\\locked.ini"
        # The file is in use, as the property is meant for: another program
        # holds it open, letting others read it only. Its backup reads it.
        with HeldFile(self.prefix, win_target, "read"):
            self.run_expecting(0, package, "/i")
        self.assertEqual((target / "locked.ini").read_bytes(), utf16("original"))
        renames = self.prefix.pending_renames()
        staged = [src for src, dst in renames if dst == "\\??\\" + win_target]
        self.assertEqual(len(staged), 1, renames)
        self.assertIn(("\\??\\" + win_target, ""), renames)  # the delete is queued first
        self.assertIn("TMP", staged[0])
        self.prefix.restart()
        self.assertEqual((target / "locked.ini").read_bytes(), utf16("replaced"))
        self.assertEqual(sorted(p.name for p in target.iterdir()), ["locked.ini", "readme.txt"])

    def test_skips_missing_table_and_bad_rows(self):
        # Every condition false: nothing is scheduled.
        package = self.make([("L1", "[INSTALLDIR]a.ini", "x", "Main", "NOT_SET_ANYWHERE")])
        log = self.run_expecting(0, package, "/i", log="conditions.log")
        self.assertIn("Skip install text line 'L1', 'NOT_SET_ANYWHERE'. Condition is '0'.",
                      library_lines(log, "InstallTextFiles"))
        self.assertEqual(library_lines(log, "InstallTextFilesDeferred"), [])
        self.assertFalse((package.install_dir(self.prefix) / "a.ini").exists())
        self.run_msiexec(package, "/x", log="conditions-x.log")

        package = self.make(None)
        log = self.run_expecting(0, package, "/i", log="notable.log")
        self.assertIn("There is no 'TextFile' table.", library_lines(log, "InstallTextFiles"))
        self.run_msiexec(package, "/x", log="notable-x.log")

        loose = ["TextFile\tFile\tText\tComponent_\tCondition", "s72\ts255\tS0\tS72\tS255", "TextFile\tTextFile"]
        package = self.make([("L1", "[INSTALLDIR]a.ini", "x", "", "")], table_header=loose)
        log = self.run_expecting(1603, package, "/i", log="nocomponent.log")
        immediate = library_lines(log, "InstallTextFiles")
        self.assertIn("The component is empty in L1 Error 0x80004005.", immediate)
        self.assertEqual(immediate[-1], "InstallTextFiles: finished. Return value 1603.")



if __name__ == "__main__":
    unittest.main()
