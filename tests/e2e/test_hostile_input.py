"""A hostile package or machine: links planted where the library writes, quotes
and relative paths in its tables, rename lists of the wrong form or type,
floods of tool output. In each case the outside file stays untouched, the
foreign value byte for byte, and the log says why a row was refused."""

import os
import unittest

from machine_state import MachineState, WevtutilDouble, differences, rename_value, set_rename_value, utf16_hex
from msipackage import InstallerCase, Package, library_lines, scratch_dir

AFTER_EVERYTHING = 6550


class Hostile(InstallerCase):
    clears_renames = True

    def setUp(self):
        super().setUp()
        self.outside = self.prefix.host_path("C:\\Outside")
        self.outside.mkdir(parents=True, exist_ok=True)
        self.secret = self.outside / "secret.txt"
        self.secret.write_bytes(b"outside bytes")

    def text_package(self, name, rows, **properties):
        package = self.table_package("TextFile", rows, name, **properties)
        self.folder = package.install_dir(self.prefix)
        self.folder.mkdir(parents=True, exist_ok=True)
        return package

    def test_a_link_at_the_target_is_refused_and_what_it_points_to_is_untouched(self):
        # Wine shows a host's link to a folder as a reparse point (a link to a
        # file it follows silently; Windows reports both).
        for lock in ("0", "1"):
            with self.subTest(LOCKFILESONUPDATE=lock):
                package = self.text_package(f"HostileLink{lock}",
                                            [("L1", "[INSTALLDIR]config", "x", "Main", "")], LOCKFILESONUPDATE=lock)
                os.symlink(self.outside, self.folder / "config")
                before = MachineState(self.prefix, [self.outside, self.folder]).capture()
                log = self.run_expecting(1603, package, "/i", log=f"link{lock}.log")
                target = f"C:\\Program Files\\{package.directory}\\config"
                self.assertIn(f"Refused to write '{target}': it is a link (reparse point). Error 0x80070780.",
                              library_lines(log, "InstallTextFilesDeferred"))
                after = MachineState(self.prefix, [self.outside, self.folder]).capture()
                self.assertEqual(differences(before, after), [])

    def test_links_planted_at_every_old_staging_name_are_never_opened(self):
        package = self.text_package("HostileStaging", [("L1", "[INSTALLDIR]app.ini", "new", "Main", "")],
                                    LOCKFILESONUPDATE="1")
        (self.folder / "app.ini").write_bytes(b"old")
        for n in range(0x10000):  # every name GetTempFileNameW could have chosen
            os.symlink(self.secret, self.folder / f"TMP{n:X}.tmp")
        self.run_expecting(0, package, "/i")
        self.assertEqual(self.secret.read_bytes(), b"outside bytes")
        staged = [src for src, dst in self.prefix.pending_renames() if dst.endswith("app.ini")]
        self.assertEqual(len(staged), 1)
        self.assertRegex(staged[0], r"\\TMP[0-9a-f]{32}\.tmp$")

    def test_relative_and_malformed_paths_fail_the_row_before_anything_runs(self):
        cases = {
            "relative.txt": "it is not an absolute path (a drive or a network share)",
            'C:\\Outside\\a"b.txt': "it holds '\"', which no Windows path can hold",
        }
        for path, why in cases.items():
            with self.subTest(path=path):
                package = self.text_package(f"HostilePath{len(path)}", [("Bad", path, "x", "Main", "")])
                log = self.run_expecting(1603, package, "/i", log=f"path{len(path)}.log")
                self.assertIn(f"The file '{path}' of text line 'Bad' is refused: {why}. Error 0x80070057.",
                              library_lines(log, "InstallTextFiles"))
                self.assertEqual(library_lines(log, "InstallTextFilesDeferred"), [])

    def test_a_quote_in_a_manifest_path_is_refused_before_the_tool_runs(self):
        double = self.enterContext(WevtutilDouble(self.prefix, scratch_dir("wevtutil-original-hostile")))
        double.use_in(self.prefix)
        package = Package("HostileManifest").add_component("Manifests", [("ev1", "m.man", "<m/>")])
        evil = '[#ev1]" /rf:"C:\\Outside\\evil.dll'
        package.add_table("EventManifest", [("M1", "Manifests", evil)])
        log = self.run_expecting(1603, package, "/i")
        self.assertEqual(double.calls(), [])
        lines = library_lines(log, "UninstallEventManifest") + library_lines(log, "InstallEventManifest")
        self.assertTrue(any("is refused: it holds '\"', which no Windows path can hold." in l for l in lines), lines)

    def test_rename_values_of_the_wrong_form_or_type_stay_byte_for_byte(self):
        # Every form is the in-process tests' business; these take the real action's way in both modes.
        values = {
            "odd byte count": (utf16_hex(["\\??\\C:\\a", "\\??\\C:\\b"]) + b"\x01", 7),
            "odd number of strings": (utf16_hex(["\\??\\C:\\a"]), 7),
            "a list as REG_BINARY": (utf16_hex(["\\??\\C:\\a", "\\??\\C:\\b"]), 3),
        }
        for case, (data, type_code) in values.items():
            for lock in ("1", "0"):
                with self.subTest(case=case, LOCKFILESONUPDATE=lock):
                    package = self.text_package(f"HostileValue{type_code}{len(data)}{lock}",
                                                [("L1", "[INSTALLDIR]app.ini", "new", "Main", "")],
                                                LOCKFILESONUPDATE=lock).fail_at(AFTER_EVERYTHING)
                    (self.folder / "app.ini").write_bytes(b"old")
                    set_rename_value(self.prefix, data, type_code)
                    value = rename_value(self.prefix)
                    log = self.run_expecting(1603, package, "/i", log=f"value{type_code}{len(data)}{lock}.log")
                    self.assertEqual(rename_value(self.prefix), value)
                    self.assertEqual((self.folder / "app.ini").read_bytes(), b"old")
                    immediate = library_lines(log, "InstallTextFiles")
                    if lock == "1":  # the install needs the list: it says what it found and stops
                        self.assertTrue(any("Files cannot be replaced at restart without changing it." in l
                                            for l in immediate), immediate)
                    else:  # it never reads the list
                        self.assertEqual(library_lines(log, "InstallTextFilesRollback")[-1],
                                         "InstallTextFilesRollback: finished. Return value 0.")

    def test_a_megabyte_of_tool_output_is_logged_in_whole_lines(self):
        double = self.enterContext(WevtutilDouble(self.prefix, scratch_dir("wevtutil-original-hostile")))
        double.use_in(self.prefix)
        package = Package("HostileOutput").add_component("Manifests", [("ev1", "m.man", "<m/>")])
        package.add_table("EventManifest", [("M1", "Manifests", "[#ev1]")])
        (double.folder / "rules.txt").write_text(" im \t0\t1048576\n")
        log = self.run_expecting(0, package, "/i")
        lines = [l for l in library_lines(log, "InstallEventManifestDeferred") if l.startswith("> line ")]
        self.assertEqual(len(lines), 10486)
        self.assertTrue(all(len(l) == 2 + 98 for l in lines))


if __name__ == "__main__":
    unittest.main()
