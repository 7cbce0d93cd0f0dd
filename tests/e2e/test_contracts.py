"""The contract with packages already written: for each specified table, a
package built by hand from the table's specified columns alone (no kit
definition, no kit actions), installed, repaired, uninstalled and rolled back
through real msiexec, with the specified log lines asserted word for word.
When one of these fails, the library drifted, not the test."""

import unittest

from machine_state import WevtutilDouble, registry_values
from msipackage import WOW, InstallerCase, Package, library_lines, scratch_dir

REPAIR = ("REINSTALL=ALL", "REINSTALLMODE=vomus")
IMMEDIATE, DEFERRED, ROLLBACK, COMMIT, DEFERRED_USER = "1", "3073", "3329", "3585", "1025"


class Contract(InstallerCase):
    clears_renames = True

    def package(self, table, header, rows, actions, sequence):
        """Components Main (installed) and Off (in a feature that is not);
        `header` the IDT's three lines; `actions` (name, type, entry)."""
        package = Package(f"Contract{table}{self.count_up()}", by_hand=True)
        package.add_component("Main", [("main", "main.txt", "m")])
        package.add_component("Off", [("off", "off.txt", "o")], feature="Off")
        package.features_off.add("Off")
        package.tables[table] = (header, [list(r) for r in rows])
        package.custom_actions += [[name, kind, "SetupUtils", entry] for name, kind, entry in actions]
        package.sequence += [[name, "", str(at)] for name, at in sequence]
        return package

    def count_up(self):
        self.count = getattr(self, "count", 0) + 1
        return self.count

    def assertLines(self, expected, log, *actions):
        got = [line for action in actions for line in library_lines(log, action)]
        for line in expected:
            self.assertIn(line, got)


class TextFileContract(Contract):
    HEADER = ["TextFile\tFile\tText\tComponent_\tCondition", "s72\tl255\ts0\ts72\tS255", "TextFile\tTextFile"]
    ACTIONS = [("InstallTextFiles", IMMEDIATE, "InstallTextFiles"),
               ("InstallTextFilesDeferred", DEFERRED, "InstallTextFilesDeferred"),
               ("InstallTextFilesRollback", ROLLBACK, "InstallTextFilesRollback"),
               ("InstallTextFilesCommit", COMMIT, "InstallTextFilesCommit")]

    def test_text_file_rows_install_repair_uninstall_and_roll_back(self):
        rows = [("T1", "[INSTALLDIR]app.ini", "[\\[]main[\\]]", "Main", ""),
                ("T2", "[INSTALLDIR]app.ini", "name=[ProductName]", "Main", ""),
                ("Cond", "[INSTALLDIR]c.ini", "x", "Main", "NOT_SET_ANYWHERE_X"),
                ("Off", "[INSTALLDIR]off.ini", "y", "Off", "")]
        package = self.package("TextFile", self.HEADER, rows, self.ACTIONS, [("InstallTextFiles", 4500)])
        folder = package.install_dir(self.prefix)
        path = f"C:\\Program Files\\{package.directory}\\app.ini"
        log = self.run_expecting(0, package, "/i")
        immediate = ("InstallTextFiles",)
        self.assertLines(["Need to install text line 'T1'. Component 'Main' to do 1.",
                          "Skip install text line 'Cond', 'NOT_SET_ANYWHERE_X'. Condition is '0'.",
                          "Skip install text line 'Off' for null-action component 'Off'.",
                          f"Configuring text file {path}.",
                          f"The text file {path} (0) was successfully configured."], log, *immediate)
        # The first line unterminated, the second joined to it; no brackets in the logged copy.
        self.assertIn(f"Generated text file content:\nmainname={package.name}\n", log)
        self.assertEqual((folder / "app.ini").read_bytes().decode("utf-16"), f"[main]name={package.name}\r\n")
        (folder / "app.ini").write_bytes(b"damaged")  # a repair writes it again; uninstall leaves it
        log = self.run_expecting(0, package, "/i", *REPAIR, log="repair.log")
        self.assertLines(["Need to install text line 'T1'. Component 'Main' to do 3."], log, *immediate)
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertLines(["Skip install text line 'T1'. Component 'Main' is not marked to install."], log, *immediate)
        self.assertEqual((folder / "app.ini").read_bytes().decode("utf-16"), f"[main]name={package.name}\r\n")
        # Rollback puts back the file as it was.
        failing = self.package("TextFile", self.HEADER, rows, self.ACTIONS, [("InstallTextFiles", 4500)]).fail_at(6550)
        folder = failing.install_dir(self.prefix)
        folder.mkdir(parents=True)
        (folder / "app.ini").write_bytes(b"old")
        log = self.run_expecting(1603, failing, "/i", log="rollback.log")
        self.assertEqual((folder / "app.ini").read_bytes(), b"old")


class RegistryExContract(Contract):
    HEADER = ["RegistryEx\tRoot\tKey\tName\tValue\tComponent_\tAttributes\tCondition\tFile",
              "s72\ti2\tl255\tL255\tL0\ts72\tI4\tS255\tS255", "RegistryEx\tRegistryEx"]
    ACTIONS = [("InstallRegFiles", IMMEDIATE, "InstallRegFiles"), ("UninstallRegFiles", IMMEDIATE, "UninstallRegFiles"),
               ("InstallRegistryDeferred", DEFERRED, "InstallRegistryDeferred"),
               ("InstallRegistryRollback", ROLLBACK, "InstallRegistryRollback"),
               ("UninstallRegistryDeferred", DEFERRED, "UninstallRegistryDeferred"),
               ("UninstallRegistryRollback", ROLLBACK, "UninstallRegistryRollback")]
    SEQUENCE = [("UninstallRegFiles", 2590), ("InstallRegFiles", 5020)]

    def test_registry_rows_install_repair_uninstall_and_roll_back(self):
        key = "Software\\SetupUtilsTest\\Contract"
        native = "HKLM\\SOFTWARE\\" + WOW + "SetupUtilsTest\\Contract"
        self.scratch_keys(native)
        rows = [("V1", "2", key, "v", "one", "Main", "0", "", ""),
                ("Gone", "2", key, "gone", "", "Main", "1", "", ""),
                ("Cond", "2", key, "c", "x", "Main", "0", "NOT_SET_ANYWHERE_X", ""),
                ("Off", "2", key, "o", "x", "Off", "0", "", "")]
        package = self.package("RegistryEx", self.HEADER, rows, self.ACTIONS, self.SEQUENCE)
        self.prefix.reg("add", native, "/f")  # the key is there; the value to delete is not
        log = self.run_expecting(0, package, "/i")
        self.assertLines(["The registry row 'V1' was successfully read. component 'Main'",
                          "The registry row 'Off' was successfully read. component 'Off'",
                          "Component: 'Main'; Installed: '2'; Action: '3'",
                          "Need to install registry row 'V1', component 'Main'.",
                          f"Need to write registry row directly 'V1', component 'Main'. {key}, v, one.",
                          "Skip install registry row 'Cond'. Condition is '0'.",
                          "Skip install registry row 'Off' for null-action component 'Off'."], log, "InstallRegFiles")
        self.assertLines([f"Write registry value: Key '{key}', Name 'v', Value 'one'.",
                          f"Failed to remove registry value: Key '{key}', Name 'gone'. Error 0x80070002."],
                         log, "InstallRegistryDeferred")
        self.assertEqual(registry_values(self.prefix, native)[native].get("v"), '"one"')
        log = self.run_expecting(0, package, "/i", *REPAIR, log="repair.log")
        self.assertLines(["Need to install registry row 'V1', component 'Main'."], log, "InstallRegFiles")
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertLines(["Skip install registry row 'V1'. Component is not marked to install.",
                          f"Need to uninstall registry row 'V1', component 'Main'. {key}, v, one."],
                         log, "InstallRegFiles", "UninstallRegFiles")
        self.assertLines([f"Remove registry value: Key '{key}', Name 'v'."], log, "UninstallRegistryDeferred")
        self.assertIsNone(registry_values(self.prefix, native).get(native, {}).get("v"))
        failing = self.package("RegistryEx", self.HEADER, rows, self.ACTIONS, self.SEQUENCE).fail_at(6550)
        self.prefix.reg("add", native, "/v", "v", "/d", "before", "/f")
        self.run_expecting(1603, failing, "/i", log="rollback.log")
        self.assertEqual(registry_values(self.prefix, native)[native].get("v"), '"before"')


class MoveFileExContract(Contract):
    HEADER = ["MoveFileEx\tComponent_\tSource\tDestination\tAttributes\tCondition", "s72\ts72\tl255\tl255\tI4\tS255",
              "MoveFileEx\tMoveFileEx"]
    ACTIONS = [("MoveFilesEx", IMMEDIATE, "MoveFilesEx"), ("MoveFilesExDeferred", DEFERRED, "MoveFilesExDeferred"),
               ("MoveFilesExDeferredUser", DEFERRED_USER, "MoveFilesExDeferred"),
               ("MoveFilesExFinalize", COMMIT, "MoveFilesExFinalize"),
               ("MoveFilesExRollback", ROLLBACK, "MoveFilesExRollback")]

    def test_move_file_rows_install_repair_uninstall_and_roll_back(self):
        win = "C:\\contract-mfx"
        root = self.prefix.host_path(win)
        root.mkdir(parents=True, exist_ok=True)
        (root / "source.txt").write_bytes(b"source")
        src, dst = f"{win}\\source.txt", f"{win}\\copy.txt"
        on_install_deferred = str(0x1 | 0x200)  # a copy, in the deferred phase
        rows = [("Copy", "Main", src, dst, on_install_deferred, ""),
                ("Cond", "Main", src, f"{win}\\c.txt", on_install_deferred, "NOT_SET_ANYWHERE_X"),
                ("Off", "Off", src, f"{win}\\o.txt", on_install_deferred, "")]
        package = self.package("MoveFileEx", self.HEADER, rows, self.ACTIONS, [("MoveFilesEx", 4510)])
        log = self.run_expecting(0, package, "/i")
        self.assertLines([f"Configured move file Copy, Main, {src}, {dst}, , 513.",
                          f"Need to move files 'Copy', '{src}'->'{dst}'. Component to do 1.",
                          f"Skip move files 'Cond', '{src}'->'{win}\\c.txt'. Condition is '0'.",
                          f"Skip move files 'Off', '{src}'->'{win}\\o.txt' for null-action component."],
                         log, "MoveFilesEx")
        self.assertEqual((root / "copy.txt").read_bytes(), b"source")
        log = self.run_expecting(0, package, "/i", *REPAIR, log="repair.log")
        self.assertLines([f"Skip move files 'Copy', '{src}'->'{dst}'. Component action 3 is not suitable. "],
                         log, "MoveFilesEx")
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertLines([f"Skip move files 'Copy', '{src}'->'{dst}'. Component action 2 is not suitable. "],
                         log, "MoveFilesEx")
        (root / "copy.txt").unlink()
        failing = self.package("MoveFileEx", self.HEADER, rows, self.ACTIONS, [("MoveFilesEx", 4510)]).fail_at(6550)
        self.run_expecting(1603, failing, "/i", log="rollback.log")
        self.assertFalse((root / "copy.txt").exists())


class EventManifestContract(Contract):
    # Exactly the two columns the actions read: no key column of the kit's.
    HEADER = ["Component_\tFile", "s72\tl255", "EventManifest\tComponent_\tFile"]
    ACTIONS = [("InstallEventManifest", IMMEDIATE, "InstallEventManifest"),
               ("UninstallEventManifest", IMMEDIATE, "UninstallEventManifest"),
               ("InstallEventManifestDeferred", DEFERRED, "InstallEventManifestDeferred"),
               ("InstallEventManifestRollback", ROLLBACK, "InstallEventManifestRollback"),
               ("UninstallEventManifestDeferred", DEFERRED, "UninstallEventManifestDeferred"),
               ("UninstallEventManifestRollback", ROLLBACK, "UninstallEventManifestRollback")]
    SEQUENCE = [("UninstallEventManifest", 3490), ("InstallEventManifest", 4010)]

    def test_event_manifest_rows_install_repair_uninstall_and_roll_back(self):
        double = self.enterContext(WevtutilDouble(self.prefix, scratch_dir("wevtutil-original-contract")))
        double.use_in(self.prefix)
        rows = [("Main", "[#main]"), ("Main", "[INSTALLDIR]second.man"), ("Off", "[INSTALLDIR]off.man")]
        package = self.package("EventManifest", self.HEADER, rows, self.ACTIONS, self.SEQUENCE)
        folder = f"C:\\Program Files\\{package.directory}"
        paths = [f"{folder}\\main.txt", f"{folder}\\second.man"]  # in table order
        log = self.run_expecting(0, package, "/i")
        self.assertLines([f"Need to install event log manifest '{paths[0]}'. Component 'Main' to do 1.",
                          f"Skip install event log manifest '{folder}\\off.man' for null-action component."], log,
                         "InstallEventManifest")
        self.assertLines([f"Skip uninstall event log manifest '{paths[1]}'. Component 'Main' is not marked to "
                          "uninstall or reinstall."], log, "UninstallEventManifest")
        self.assertLines([f"Start process: {double.command('im', paths[0])}.", "> wevtutil double: ok",
                          "Process finished. ExitCode: '0'"], log, "InstallEventManifestDeferred")
        log = self.run_expecting(0, package, "/i", *REPAIR, log="repair.log")
        self.assertLines([f"Need to install event log manifest '{paths[1]}'. Component 'Main' to do 3."], log,
                         "InstallEventManifest")
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertLines([f"Need to uninstall event log manifest '{paths[0]}'. Component 'Main' to do 2."], log,
                         "UninstallEventManifest")
        self.assertEqual(library_lines(log, "InstallEventManifestDeferred"), [])
        # Registered in table order; a repair unregisters before its files are replaced and registers after.
        self.assertEqual(double.calls(), [double.command(verb, p) for verb in ("im", "um", "im", "um") for p in paths])
        failing = self.package("EventManifest", self.HEADER, rows, self.ACTIONS, self.SEQUENCE).fail_at(6550)
        self.run_expecting(1603, failing, "/i", log="rollback.log")
        folder = f"C:\\Program Files\\{failing.directory}"
        paths = [f"{folder}\\main.txt", f"{folder}\\second.man"]
        self.assertEqual(double.calls()[-4:], [double.command(verb, p) for verb in ("im", "um") for p in paths])


if __name__ == "__main__":
    unittest.main()
