"""MoveFileEx through real msiexec: copies and moves in each phase, backups
that commit removes, continue-on-error rows that leave warnings, restart-time
moves queued once and carried out by a restart, a destination held open that
becomes a restart-time copy, and rows that name no phase or bad paths.

Sources and destinations live in a scratch folder of the prefix (C:\\mfx\\<test>),
beside the package's own install folder."""

import os
import unittest

from machine_state import OLD_TIME, HeldFile, fresh_folder, old_file
from msipackage import InstallerCase, library_lines

INSTALL, REINSTALL, UNINSTALL, OPTIONAL, MOVE = 0x1, 0x2, 0x4, 0x10, 0x20
IMMEDIATE, DEFERRED, COMMIT, ROLLBACK, AT_RESTART, CONTINUE = 0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000


class MoveFiles(InstallerCase):
    clears_renames = True

    def setUp(self):
        super().setUp()
        self.win = "C:\\mfx\\" + self.name
        self.root = fresh_folder(self.prefix.host_path(self.win))

    def file(self, name, text):
        return old_file(self.root / name, text.encode())

    def package(self, rows, fail_at=None, **properties):
        return self.table_package("MoveFileEx", [(i, "Main", s, d, str(a), c) for i, s, d, a, c in rows],
                                  fail_at=fail_at, **properties)

    def files(self):
        return sorted(str(p.relative_to(self.root)) for p in self.root.rglob("*") if p.is_file())

    def test_copies_and_moves_in_each_phase_and_commit_removes_the_backups(self):
        w = self.win
        self.file("a.txt", "new a")
        self.file("b.txt", "new b")
        self.file("c.txt", "new c")
        self.file("old.txt", "old bytes")
        package = self.package([
            ("Copy", f"{w}\\a.txt", f"{w}\\out\\deep\\a.txt", INSTALL | DEFERRED, ""),
            ("CopyOver", f"{w}\\a.txt", f"{w}\\old.txt", INSTALL | DEFERRED, ""),
            ("Move", f"{w}\\b.txt", f"{w}\\moved\\b.txt", INSTALL | DEFERRED | MOVE, ""),
            ("Now", f"{w}\\c.txt", f"{w}\\now.txt", INSTALL | IMMEDIATE, ""),
            ("OnCommit", f"{w}\\c.txt", f"{w}\\commit.txt", INSTALL | COMMIT, ""),
            ("OnRollback", f"{w}\\c.txt", f"{w}\\rollback.txt", INSTALL | ROLLBACK, ""),
            ("Nowhere", f"{w}\\c.txt", f"{w}\\nowhere.txt", INSTALL, ""),
            ("Uninstall", f"{w}\\c.txt", f"{w}\\uninstall.txt", UNINSTALL | DEFERRED, ""),
            ("Condition", f"{w}\\c.txt", f"{w}\\condition.txt", INSTALL | DEFERRED, "1=0"),
        ])
        log = self.run_expecting(0, package, "/i")
        self.assertEqual(self.files(), ["a.txt", "c.txt", "commit.txt", "moved\\b.txt".replace("\\", os.sep),
                                        "now.txt", "old.txt", "out/deep/a.txt".replace("/", os.sep)])
        self.assertEqual((self.root / "old.txt").read_bytes(), b"new a")
        self.assertEqual((self.root / "moved" / "b.txt").read_bytes(), b"new b")
        # A copy keeps the source's times.
        self.assertEqual(int((self.root / "out" / "deep" / "a.txt").stat().st_mtime), OLD_TIME)
        # The decisions' texts are the plan's tests' business; here the rows as formatted, and the immediate copy.
        immediate = library_lines(log, "MoveFilesEx")
        self.assertIn(f"Configured move file Copy, Main, {w}\\a.txt, {w}\\out\\deep\\a.txt, , 513.", immediate)
        self.assertIn(f"Copy file '{w}\\c.txt' -> '{w}\\now.txt'.", immediate)
        deferred = library_lines(log, "MoveFilesExDeferred")
        self.assertIn(f"Move file '{w}\\b.txt' -> '{w}\\moved\\b.txt'.", deferred)
        self.assertTrue(any(line.startswith(f"Backing up file '{w}\\old.txt' -> ") for line in deferred), deferred)
        commit = library_lines(log, "MoveFilesExFinalize")
        self.assertTrue(any(line.startswith("Cleanup file ") for line in commit), commit)
        self.assertNotIn("MoveFilesExRollback initialized.", log)
        # The uninstall row runs on uninstall only.
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual((self.root / "uninstall.txt").read_bytes(), b"new c")
        self.assertIn(f"Need to move files 'Uninstall', '{w}\\c.txt'->'{w}\\uninstall.txt'. Component to do 2.",
                      library_lines(log, "MoveFilesEx"))

    def test_continue_on_error_rows_fail_as_warnings_and_the_rest_runs(self):
        w = self.win
        self.file("a.txt", "a")
        (self.root / "folder.txt").mkdir()
        warnings = f"{w}\\warnings.txt"
        (self.root / "warnings.txt").write_bytes(b"\xff\xfe" + "earlier\r\n".encode("utf-16-le"))
        package = self.package([
            ("Missing", f"{w}\\missing.txt", f"{w}\\x.txt", INSTALL | DEFERRED | CONTINUE, ""),
            ("OntoFolder", f"{w}\\a.txt", f"{w}\\folder.txt", INSTALL | DEFERRED | CONTINUE, ""),
            ("Optional", f"{w}\\missing.txt", f"{w}\\y.txt", INSTALL | DEFERRED | OPTIONAL, ""),
            ("Empty", f"{w}\\a.txt", "[NOTSET]", INSTALL | DEFERRED | CONTINUE, ""),
            ("Good", f"{w}\\a.txt", f"{w}\\good.txt", INSTALL | DEFERRED, ""),
        ], InstallationWarningsFilePath=warnings)
        log = self.run_expecting(0, package, "/i")
        self.assertEqual((self.root / "good.txt").read_bytes(), b"a")
        data = (self.root / "warnings.txt").read_bytes()
        self.assertEqual(data[:2], b"\xff\xfe")  # one byte-order mark, from the earlier writer
        lines = data[2:].decode("utf-16-le").split("\r\n")
        self.assertEqual(lines[0], "earlier")
        self.assertEqual(lines[1], f"Warning: The source file '{w}\\missing.txt' does not exist. Error 0x80070002.")
        self.assertEqual(lines[2], f"Warning: The destination '{w}\\folder.txt' is a folder: it is never replaced "
                                   "by a file. Error 0x8007010b.")
        self.assertEqual(lines[3], f"Warning: Cannot move files 'Empty', '{w}\\a.txt'->'': the destination is empty. "
                                   "Error 0x80070057.")
        self.assertEqual(lines[4:], [""])
        deferred = library_lines(log, "MoveFilesExDeferred")
        self.assertIn(f"Write exceptions that wasn't raised due to the ContinueOnError row attribute to '{warnings}'.",
                      deferred)
        self.assertIn(f"Skip move files 'Optional', '{w}\\missing.txt'->'{w}\\y.txt'. The source does not exist and "
                      "the row allows it (0x10).", deferred)

    def test_a_network_source_goes_to_the_impersonated_deferred_action(self):
        w = self.win
        self.file("a.txt", "a")
        package = self.package([
            ("Net", "\\\\nosuchserver\\share\\a.txt", f"{w}\\net.txt", INSTALL | DEFERRED | CONTINUE, ""),
            ("Local", f"{w}\\a.txt", f"{w}\\local.txt", INSTALL | DEFERRED, ""),
        ])
        log = self.run_expecting(0, package, "/i")
        # Scheduled under its own name, run by the deferred entry point: the
        # unreachable share fails as a warning there; the local row runs in the other.
        self.assertIn("Action start", log)
        self.assertRegex(log, r"Action start [\d:]+: MoveFilesExDeferredUser\.")
        deferred = library_lines(log, "MoveFilesExDeferred")
        self.assertEqual(sum(line == "MoveFilesExDeferred initialized." for line in deferred), 2, deferred)
        self.assertTrue(any(line.startswith("Warning: The source file '\\\\nosuchserver") for line in deferred),
                        deferred)
        self.assertEqual((self.root / "local.txt").read_bytes(), b"a")
        self.assertFalse((self.root / "net.txt").exists())

    def test_a_strict_row_with_a_bad_path_fails_before_anything_changes(self):
        w = self.win
        self.file("a.txt", "a")
        for case, (source, destination) in {"empty": (f"{w}\\a.txt", "[NOTSET]"),
                                            "relative": ("a.txt", f"{w}\\b.txt")}.items():
            with self.subTest(case=case):
                package = self.package([("Bad", source, destination, INSTALL | DEFERRED, "")])
                log = self.run_expecting(1603, package, "/i")
                self.assertTrue(any(line.startswith("Cannot move files 'Bad'") and line.endswith("Error 0x80070057.")
                                    for line in library_lines(log, "MoveFilesEx")), log[-3000:])
                self.assertEqual(self.files(), ["a.txt"])

    def test_destinations_longer_than_260_characters(self):
        w = self.win
        self.file("a.txt", "a")
        deep = "\\".join(["d" * 60] * 5)
        rows = [("Long", f"{w}\\a.txt", f"{w}\\{deep}\\long.txt", INSTALL | DEFERRED, ""),
                ("Prefixed", f"{w}\\a.txt", f"\\\\?\\{w}\\{deep}\\prefixed.txt", INSTALL | DEFERRED, "")]
        self.assertGreater(len(rows[0][2]), 300)
        self.run_expecting(0, self.package(rows), "/i")
        self.assertEqual((self.root / deep.replace("\\", os.sep) / "long.txt").read_bytes(), b"a")
        self.assertEqual((self.root / deep.replace("\\", os.sep) / "prefixed.txt").read_bytes(), b"a")

    def test_restart_moves_are_queued_once_and_carried_out_by_a_restart(self):
        w = self.win
        self.file("m.txt", "moved at restart")
        self.file("dest.txt", "old")
        row = (f"{w}\\m.txt", f"{w}\\dest.txt", INSTALL | DEFERRED | MOVE | AT_RESTART, "")
        package = self.package([("First",) + row, ("Again",) + row])
        log = self.run_expecting(0, package, "/i")
        renames = self.prefix.pending_renames()
        self.assertEqual(renames.count((f"\\??\\{w}\\m.txt", f"\\??\\{w}\\dest.txt")), 1, renames)
        self.assertIn(f"Move file on reboot already scheduled '{w}\\m.txt' -> '{w}\\dest.txt'.",
                      library_lines(log, "MoveFilesExDeferred"))
        self.assertEqual((self.root / "dest.txt").read_bytes(), b"old")
        self.prefix.restart()
        self.assertEqual((self.root / "dest.txt").read_bytes(), b"moved at restart")
        self.assertFalse((self.root / "m.txt").exists())

    def test_a_copy_onto_a_file_held_open_becomes_a_restart_copy(self):
        w = self.win
        self.file("a.txt", "new")
        self.file("held.txt", "old")
        package = self.package([("Held", f"{w}\\a.txt", f"{w}\\held.txt", INSTALL | DEFERRED, "")])
        with HeldFile(self.prefix, f"{w}\\held.txt", "none"):
            code, log = self.run_msiexec(package, "/i")
        self.assertEqual(code, 0, log[-4000:])
        self.assertEqual((self.root / "held.txt").read_bytes(), b"old")
        renames = self.prefix.pending_renames()
        self.assertIn((f"\\??\\{w}\\held.txt", ""), renames)
        staged = [s for s, t in renames if t == f"\\??\\{w}\\held.txt"]
        self.assertEqual(len(staged), 1, renames)
        self.assertTrue(staged[0].startswith(f"\\??\\{w}\\TBM"), staged)
        self.prefix.restart()
        self.assertEqual((self.root / "held.txt").read_bytes(), b"new")
        self.assertEqual(self.files(), ["a.txt", "held.txt"])


if __name__ == "__main__":
    unittest.main()
