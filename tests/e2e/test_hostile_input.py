"""A hostile package or machine: links planted where the library writes, quotes
and relative paths in its tables, rename lists of the wrong form or type,
floods of tool output. In each case the outside file stays untouched, the
foreign value byte for byte, and the log says why a row was refused."""

import os
import re
import unittest

from cabinet import cabinet_bytes
from machine_state import (MachineState, WevtutilDouble, differences, fresh_folder, registry_values,
                           rename_value, set_rename_value, utf16_hex)
from msipackage import TEST_TOOLS, WOW, InstallerCase, Package, library_lines, scratch_dir

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


def lines_of(log, *actions):
    return "\n".join(line for action in actions for line in library_lines(log, action))


class SystemActions(InstallerCase):
    """What a user who can write beside the targets could plant, against the
    actions that run as LocalSystem; numbered as the findings they answer."""
    clears_renames = True

    def setUp(self):
        super().setUp()
        self.win = "C:\\plant\\" + self.name
        self.root = fresh_folder(self.prefix.host_path(self.win))
        self.outside = fresh_folder(self.prefix.host_path("C:\\Outside\\" + self.name))
        (self.outside / "precious.txt").write_bytes(b"outside bytes")

    def outside_state(self):
        return MachineState(self.prefix, [self.outside]).capture()

    def test_1_work_folders_are_made_new_by_the_deferred_action_and_never_named_before(self):
        (self.root / "data").mkdir()
        for n in range(3):
            (self.root / "data" / f"old{n}.log").write_bytes(b"old")
        cab = cabinet_bytes([("a.txt", b"alpha")])
        package = self.table_package("CabPackage", [("Data", "[INSTALLDIR]payload.cab", self.win + "\\cab", "0",
                                                     "Main", "")], files=[("cab0", "payload.cab", cab)])
        package.add_table("RemoveFileEx", [("Logs", "Main", self.win + "\\data\\*.log", "0", "1", "")])
        # After the deferred actions made their folders, and before the failure
        # sends rollback into them, a user swaps each for a link to a folder
        # outside; under the old design, rollback then emptied what it points to.
        planted = self.work / "planted.txt"
        script = self.work / "swap.sh"
        script.write_text(f"""echo started > '{planted}.ran'
for f in '{self.root}'/~cab* '{self.root / "data"}'/~rfx*; do
  [ -d "$f" ] || continue
  mv "$f" "$f.moved" && ln -s '{self.outside}' "$f" && echo "$f" >> '{planted}'
done
""")
        package.run_host_script(4025, script).fail_at(6550)
        before = self.outside_state()
        log = self.run_expecting(1603, package, "/i", log="fail.log")
        swapped = planted.read_text().split() if planted.exists() else []
        self.assertEqual(sorted(os.path.basename(n)[:4] for n in swapped), ["~cab", "~rfx"], log[-3000:])
        self.assertEqual(differences(before, self.outside_state()), [])
        used = re.findall(r"Extract cabinet '[^']*' into '([^']*)'", log)
        self.assertEqual(len(used), 1, log[-3000:])
        self.assertRegex(used[0], r"\\~cab[0-9a-f]{32}$")  # a folder of its own, named by nobody
        self.assertIn(f"Refused to use the work folder '{used[0]}': it is no longer the folder made for it.",
                      library_lines(log, "InstallCabsRollback"))
        records = "HKLM\\Software\\" + WOW + "Setup Utils\\WorkFolders"
        self.assertEqual(registry_values(self.prefix, records).get(records, {}), {})

    def test_2_registry_links_are_removed_as_links_and_never_walked(self):
        base = "Software\\SetupUtilsTest\\" + self.name
        native = "HKLM\\SOFTWARE\\" + WOW + "SetupUtilsTest\\" + self.name
        target = "HKLM\\Software\\SetupUtilsLinkTarget" + self.name
        self.scratch_keys(native, target)
        self.prefix.reg("add", target, "/v", "keep", "/d", "yes", "/f")
        self.prefix.reg("add", native + "\\Tree", "/v", "a", "/d", "1", "/f")
        kernel = "\\Registry\\Machine\\" + target.split("\\", 1)[1]
        ancestor = "\\Registry\\Machine\\" + native.split("\\", 1)[1]
        for link, to in (("Tree\\Link", kernel), ("Tree\\Loop", ancestor)):
            code = self.prefix.wine(str(TEST_TOOLS / "reg_link.exe"), native.split("\\", 1)[1] + "\\" + link, to,
                                    check=False).returncode
            self.assertEqual(code, 0)
        rows = [("Drop", "2", base + "\\Tree", "-", "", "Main", "0", "", "")]
        package = self.table_package("RegistryEx", rows)
        self.run_expecting(0, package, "/i")
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual(registry_values(self.prefix, target)[target], {"keep": '"yes"'})
        self.assertNotEqual(self.prefix.reg("query", native + "\\Tree").returncode, 0)
        lines = library_lines(log, "UninstallRegistryDeferred")
        self.assertIn(f"Remove registry link '{base}\\Tree\\Link' (its target stays).", lines)

    def test_3_a_line_break_in_a_value_adds_no_line_to_a_registry_file(self):
        native = "HKLM\\SOFTWARE\\" + WOW + "SetupUtilsTest\\" + self.name
        victim = "HKLM\\Software\\SetupUtilsVictim" + self.name
        self.scratch_keys(native, victim)
        self.prefix.reg("add", victim, "/v", "keep", "/d", "yes", "/f")
        key = "Software\\SetupUtilsTest\\" + self.name
        reg = "[INSTALLDIR]values.reg"
        # A line break reaches a formatted value through the environment: a
        # property given on msiexec's command line cannot carry one.
        self.prefix.env["EVIL_TEXT"] = f"a\r\n\r\n[-{victim.replace('HKLM', 'HKEY_LOCAL_MACHINE')}]\r\n\"x\"=\"y"
        self.addCleanup(self.prefix.env.pop, "EVIL_TEXT", None)
        package = self.table_package("RegistryEx", [("Text", "2", key, "Text", "[%EVIL_TEXT]", "Main", "0", "", reg),
                                                    ("Bin", "2", key, "Bin", "#x0a0b", "Main", "0", "", reg)])
        self.run_expecting(0, package, "/i")
        path = package.install_dir(self.prefix) / "values.reg"
        self.assertIn('"Text"=hex(1):61,00,0d,00,0a,00,0d,00,0a,00,5b,00', path.read_bytes().decode("utf-16"))
        self.prefix.wine("regedit", "/s", self.prefix.windows_path(path))
        self.assertEqual(registry_values(self.prefix, victim)[victim], {"keep": '"yes"'})
        values = registry_values(self.prefix, native)[native]
        self.assertEqual(sorted(values), ["Bin", "Text"])  # no "x" from the injected line
        self.assertEqual(values["Bin"], "hex:0a,0b")
        self.assertTrue(values["Text"].startswith('"a\\r\\n\\r\\n[-HKEY'), values)  # one string, breaks inside
        # A key holding a line break is refused before anything is written.
        package = self.table_package("RegistryEx", [("Key", "2", key + "[%EVIL_TEXT]", "n", "v", "Main", "0", "", reg)])
        log = self.run_expecting(1603, package, "/i", log="key.log")
        self.assertTrue(any("The registry row 'Key' cannot be written: the key holds a line break or NUL (code 13)"
                            in l for l in library_lines(log, "InstallRegFiles")), log[-3000:])

    def test_4_a_linked_xml_target_is_refused_on_the_opened_handle(self):
        os.symlink(self.outside, self.root / "web.config")
        row = ("Port", self.win + "\\web.config", "/configuration", "0", "port", "1", "", "1", "0", "Main", "")
        before = self.outside_state()
        log = self.run_expecting(1603, self.table_package("XmlFile", [row]), "/i")
        self.assertEqual(differences(before, self.outside_state()), [])
        lines = library_lines(log, "InstallXmlFilesDeferred")
        self.assertTrue(any("it is a link (reparse point)" in l for l in lines), lines)

    def test_5_a_secret_registry_value_reaches_no_line_and_no_logged_data(self):
        native = "HKLM\\SOFTWARE\\" + WOW + "SetupUtilsTest\\" + self.name
        self.scratch_keys(native)
        key = "Software\\SetupUtilsTest\\" + self.name
        package = self.table_package("RegistryEx", [("Pw", "2", key, "Password", "[DB_PASSWORD]", "Main", "0", "",
                                                     "")], DB_PASSWORD="hunter22", MsiHiddenProperties="DB_PASSWORD")
        log = self.run_expecting(0, package, "/i")
        self.assertEqual(registry_values(self.prefix, native)[native]["Password"], '"hunter22"')
        log += self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertNotIn("hunter22", lines_of(log, "InstallRegFiles", "InstallRegistryDeferred", "UninstallRegFiles",
                                              "UninstallRegistryDeferred"))
        hidden = re.findall(r"MsiHiddenProperties = ([^\r\n]*)", log)
        self.assertTrue(any("InstallRegistryDeferred" in h and "InstallRegistryRollback" in h for h in hidden), hidden)
        # Wine prints the hidden actions' data in its property list all the same
        # (Windows does not): the lines of the library are what it controls.

    def test_6_rollback_restores_into_the_original_file(self):
        target = self.root / "app.ini"
        target.write_bytes(b"old")
        os.chmod(target, 0o640)
        other = self.root / "other-name.ini"
        os.link(target, other)
        inode = target.stat().st_ino
        package = self.table_package("TextFile", [("L1", self.win + "\\app.ini", "new", "Main", "")],
                                     fail_at=6550)
        self.run_expecting(1603, package, "/i")
        self.assertEqual(target.read_bytes(), b"old")
        self.assertEqual(other.read_bytes(), b"old")  # the other name sees the restored bytes
        self.assertEqual(target.stat().st_ino, inode)
        self.assertEqual(target.stat().st_mode & 0o777, 0o640)

    def test_7_dot_dot_spellings_of_system_folders_are_refused_in_every_phase(self):
        for phase in range(5):
            for path in ("C:\\bi\\..\\windows", "C:\\bi\\..", "C:\\bi\\..\\WINDOWS.\\", "C:/bi/../windows/"):
                with self.subTest(phase=phase, path=path):
                    self.prefix.clear_pending_renames()
                    package = self.table_package("RemoveFileEx", [("R", "Main", path, str(phase), str(0x1 | 0x8), "")])
                    log = self.run_expecting(0, package, "/i", log=f"p{phase}.log")
                    lines = lines_of(log, "RemoveFilesEx", "RemoveFilesExFinalize", "RemoveFilesExRollback")
                    if phase != 3:  # a rollback-only row never runs in a good install
                        self.assertIn("Refused to remove files 'R'", lines)
                    self.assertEqual(self.prefix.pending_renames(), [])
                    self.assertTrue(self.prefix.host_path("C:\\windows\\explorer.exe").exists())

    def test_8_a_property_in_an_xpath_is_a_literal(self):
        config = self.root / "config.xml"
        config.write_text('<config><add key="a" value="1"/><add key="b" value="2"/></config>')
        # (A value with both quote kinds cannot pass through wixl; the host
        # tests build that literal with concat().)
        for key in ("nosuch'] | /config/add[@key!='", "it's | //*"):
            with self.subTest(key=key):
                row = ("Set", self.win + "\\config.xml", "/config/add[@key='[KEY]']", "1", "value", "9", "", "1",
                       str(0x8), "Main", "")
                log = self.run_expecting(0, self.table_package("XmlFile", [row], KEY=key), "/i")
                self.assertIn("matches nothing", lines_of(log, "InstallXmlFilesDeferred"))
                self.assertEqual(re.findall(r'value="(\d)"', config.read_text()), ["1", "2"])


if __name__ == "__main__":
    unittest.main()
