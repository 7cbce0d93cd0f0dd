"""RegistryEx through real msiexec: direct rows written with their types,
rolled back to exactly what was there, removed on uninstall unless another
installed component still writes them, registry files that the prefix's own
regedit imports with the right types, repair, and bad input refused before
anything is written.

Rows without the Win64 bit live in the DLL's own view: the 64-bit one for the
x64 DLL, the 32-bit one (Wow6432Node) for the shipped x86 DLL under WOW64.
The checks read the 64-bit view, where both are visible."""

import unittest

from machine_state import MachineState, differences, export_key, registry_values
from msipackage import WOW, InstallerCase, Package, library_lines

INSTALL = ("InstallRegFiles", "InstallRegistryDeferred", "InstallRegistryRollback")
UNINSTALL = ("UninstallRegFiles", "UninstallRegistryDeferred", "UninstallRegistryRollback")


class RegistryEx(InstallerCase):
    def setUp(self):
        super().setUp()
        self.key = "SOFTWARE\\SetupUtilsTest\\" + self.name          # as the rows write it
        self.native = "HKLM\\SOFTWARE\\" + WOW + "SetupUtilsTest\\" + self.name  # where the DLL's view puts it
        self.wide = "HKLM\\SOFTWARE\\SetupUtilsTest\\" + self.name + "W"  # Win64 rows
        self.scratch_keys(self.native, self.wide)
        self.reg = self.prefix.reg

    def values(self, key):
        return registry_values(self.prefix, key)

    def package(self, name, rows, components=("Main",)):
        package = Package(name[:48])
        for component in components:
            feature = "Complete" if component == "Main" else component
            package.add_component(component, [(component.lower(), component.lower() + ".txt", "x")], feature)
        return package.add_table("RegistryEx", rows)

    def test_direct_rows_install_roll_back_exactly_and_uninstall(self):
        k, kw = self.key, self.key + "W"
        rows = [("Str", "2", k, "Str", "text [ProductName]", "Main", "0", "", ""),
                ("Expand", "2", k, "Expand", "#%%SystemRoot%\\x", "Main", "0", "", ""),
                ("Dword", "2", k, "Dword", "#123", "Main", "0", "", ""),
                ("Bin", "2", k, "Bin", "#x0A0B", "Main", "0", "", ""),
                ("Odd", "2", k, "Odd", "#x0A0", "Main", "0", "", ""),  # a zero in front, as the Registry table reads it
                ("Multi", "2", k, "Multi", "a[\\[]~[\\]]b", "Main", "0", "", ""),
                ("Default", "2", k, "", "dflt", "Main", "0", "", ""),
                ("Old", "2", k, "Old", "new", "Main", "0", "", ""),
                ("Doomed", "2", k, "Doomed", "", "Main", "1", "", ""),
                ("Deep", "2", k + "\\Sub\\Deep", "", "", "Main", "8", "", ""),
                ("NoRollback", "2", k, "NoRb", "kept", "Main", "16", "", ""),
                ("Skipped", "2", k, "Skipped", "x", "Main", "0", "NOT_SET_ANYWHERE", ""),
                ("Wide", "2", kw, "Wide", "#7", "Main", "2", "", "")]
        self.reg("add", self.native, "/v", "Old", "/t", "REG_EXPAND_SZ", "/d", "before", "/f")
        self.reg("add", self.native, "/v", "Doomed", "/t", "REG_DWORD", "/d", "5", "/f")
        self.reg("add", self.native, "/v", "Keep", "/t", "REG_BINARY", "/d", "0102", "/f")
        state = MachineState(self.prefix, registry_keys=[self.native, self.wide])
        before = state.capture()

        log = self.run_expecting(1603, self.package("RegFail", rows).fail_at(6550), "/i", log="fail.log")
        # Everything comes back but the row without rollback.
        self.assertEqual(self.values(self.native)[self.native]["NoRb"], '"kept"')
        self.reg("delete", self.native, "/v", "NoRb", "/f")
        self.assertEqual(differences(before, state.capture()), [], log[-4000:])

        package = self.package("RegOk", rows)
        log = self.run_expecting(0, package, "/i")
        got = self.values(self.native)[self.native]
        self.assertEqual(got["Str"], '"text RegOk"')
        self.assertEqual(got["Dword"], "dword:0000007b")
        self.assertEqual(got["Bin"], "hex:0a,0b")
        self.assertEqual(got["Odd"], "hex:00,a0")
        self.assertEqual(got["Expand"], "hex(2):" + ",".join(f"{b:02x}" for b in "%SystemRoot%\\x\0".encode("utf-16-le")))
        self.assertEqual(got["Multi"], "hex(7):61,00,00,00,62,00,00,00,00,00")
        self.assertEqual(got["@"], '"dflt"')
        self.assertEqual(got["Old"], '"new"')
        self.assertNotIn("Doomed", got)
        self.assertNotIn("Skipped", got)
        self.assertIn(self.native + "\\Sub\\Deep", self.values(self.native))
        self.assertEqual(self.values(self.wide)[self.wide]["Wide"], "dword:00000007")

        # Repair puts a damaged value back.
        self.reg("add", self.native, "/v", "Dword", "/t", "REG_SZ", "/d", "damaged", "/f")
        log = self.run_expecting(0, package, "/i", "REINSTALL=ALL", "REINSTALLMODE=vomus", log="repair.log")
        self.assertEqual(self.values(self.native)[self.native]["Dword"], "dword:0000007b")

        # Uninstall: the rows' values go, and the keys they leave empty; what
        # was there before the product stays.
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        left = self.values(self.native)
        self.assertEqual(sorted(left[self.native]), ["Keep"], left)
        self.assertNotIn(self.native + "\\Sub", left)
        self.assertIsNone(export_key(self.prefix, self.wide))
        self.assertIn(f"Removed empty registry key '{kw}'.", library_lines(log, "UninstallRegistryDeferred"))

    def test_uninstall_keeps_a_value_another_installed_component_writes(self):
        k = self.key
        rows = [("FromMain", "2", k, "Shared", "one", "Main", "0", "", ""),
                # The same value, written in other letters: the registry ignores their case.
                ("FromExtra", "2", k.upper(), "SHARED", "one", "Extra", "0", "", ""),
                ("OnlyExtra", "2", k, "Own", "two", "Extra", "0", "", "")]
        package = self.package("RegShared", rows, components=("Main", "Extra")).fail_at(2650, "FAILNOW")
        log = self.run_expecting(0, package, "/i")
        # Extra goes, Main stays: the shared value stays with it.
        log = self.run_expecting(0, package, "/i", "REMOVE=Extra", log="remove.log")
        self.assertEqual([name.lower() for name in self.values(self.native)[self.native]], ["shared"])
        self.assertIn("Skip uninstallation of registry row 'FromExtra'. Other installed component write the same "
                      f"registry value. 'FromMain', 'Main', {k}, Shared, one.", library_lines(log, "UninstallRegFiles"))
        # An uninstall that fails puts the value and its key back. (Last: Wine's
        # rollback of an uninstall does not register the components again.)
        log = self.run_expecting(1603, package, "/x", "FAILNOW=1", log="uninstall-fails.log")
        self.assertIn(f"Removed empty registry key '{k}'.", library_lines(log, "UninstallRegistryDeferred"))
        self.assertEqual(self.values(self.native)[self.native], {"Shared": '"one"'})

    def test_a_registry_file_imports_with_its_types(self):
        k = self.key
        reg = "[INSTALLDIR]values.reg"
        rows = [("FStr", "2", k, "Str", 'say "hi" \\ bye', "Main", "0", "", reg),
                ("FExpand", "2", k, "Expand", "#%%TEMP%", "Main", "0", "", reg),
                ("FDword", "2", k, "Dword", "#4294967295", "Main", "0", "", reg),
                ("FBin", "2", k, "Bin", "#xdeadbeef", "Main", "0", "", reg),
                ("FMulti", "2", k, "Multi", "x[\\[]~[\\]]y", "Main", "0", "", reg),
                ("FDefault", "2", k, "", "dflt", "Main", "0", "", reg),
                ("FGone", "2", k, "Gone", "", "Main", "1", "", reg),
                ("FDrop", "2", k + "\\Drop", "-", "", "Main", "0", "", reg),
                ("FCase", "2", k, "Cased", "x", "Main", "0", "", "[INSTALLDIR]Values.reg")]  # the same file
        self.reg("add", self.native, "/v", "Gone", "/t", "REG_SZ", "/d", "x", "/f")
        self.reg("add", self.native + "\\Drop\\Below", "/v", "v", "/t", "REG_SZ", "/d", "x", "/f")
        package = self.package("RegFile", rows)
        self.run_expecting(0, package, "/i")
        path = package.install_dir(self.prefix) / "values.reg"
        text = path.read_bytes().decode("utf-16")
        self.assertTrue(text.startswith("Windows Registry Editor Version 5.00\r\n"), text)
        self.assertIsNone(export_key(self.prefix, self.native + "\\Nothing"))
        # Nothing written directly: the file is the product.
        self.assertEqual(sorted(self.values(self.native)[self.native]), ["Gone"])
        self.prefix.wine("regedit", "/s", self.prefix.windows_path(path))
        got = self.values(self.native)
        values = got[self.native]
        self.assertEqual(values["Str"], '"say \\"hi\\" \\\\ bye"')
        self.assertTrue(values["Expand"].startswith("hex(2):25,00,54,00"), values)
        self.assertEqual(values["Dword"], "dword:ffffffff")
        self.assertEqual(values["Bin"], "hex:de,ad,be,ef")
        self.assertEqual(values["Multi"], "hex(7):78,00,00,00,79,00,00,00,00,00")
        self.assertEqual(values["@"], '"dflt"')
        self.assertEqual(values["Cased"], '"x"')
        self.assertNotIn("Gone", values)
        self.assertNotIn(self.native + "\\Drop", got)

        # The author's switch: every row written directly, no file.
        self.run_msiexec(package, "/x", log="uninstall.log")
        path.unlink(missing_ok=True)
        self.reg("delete", self.native, "/f")
        package = self.package("RegFileDirect", rows).add_property("IgnoreRegistryExFileAttribute", "1")
        self.run_expecting(0, package, "/i", log="direct.log")
        self.assertFalse(package.install_dir(self.prefix).joinpath("values.reg").exists())
        self.assertEqual(self.values(self.native)[self.native]["Dword"], "dword:ffffffff")
        self.run_msiexec(package, "/x", log="uninstall-direct.log")

    def test_bad_rows_fail_before_anything_is_written(self):
        k = self.key
        good = ("Good", "2", k, "Good", "x", "Main", "0", "", "")
        # Every reason is the plan's tests' business; here one of each kind, the last only once formatted.
        cases = {
            "number": ("BadNumber", "2", k, "N", "#abc", "Main", "0", "", ""),
            "long name": ("BadName", "2", k, "n" * 16384, "x", "Main", "0", "", ""),
            "1 MB": ("Huge", "2", k, "N", "[H]" * 10, "Main", "0", "", ""),
        }
        texts = {"number": "Failed to convert registry value to dword: #abc",
                 "long name": "the value name is 16384 characters long",
                 "1 MB": "more than the 1048576 a value may hold"}
        state = MachineState(self.prefix, registry_keys=[self.native])
        before = state.capture()
        for case, row in cases.items():
            with self.subTest(case=case):
                package = self.package("RegBad" + row[0], [good, row]).add_property("H", "x" * 60_000)
                log = self.run_expecting(1603, package, "/i", log=row[0] + ".log")
                lines = "\n".join(library_lines(log, "InstallRegFiles"))
                self.assertIn(f"The registry row '{row[0]}' cannot be written: ", lines)
                self.assertIn(texts[case], lines)
                self.assertEqual(differences(before, state.capture()), [])


if __name__ == "__main__":
    unittest.main()
