"""GetOsVersionInfo and the registry fix-ups through real msiexec: the true
version where the installer's own VersionNT is capped, the machines of both
DLL tiers, REG_QWORD values written, rolled back and removed, and DWORDs fed
from properties written as the author meant."""

import unittest

from machine_state import MachineState, differences, registry_values
from msipackage import ARCH, InstallerCase, Package, library_lines, properties

REGISTRY_HEADER = ["Registry\tRoot\tKey\tName\tValue\tComponent_", "s72\ti2\tl255\tL255\tL0\ts72", "Registry\tRegistry"]
REGISTRY_ACTIONS = [["WriteRegistryValues", "", "5000"], ["RemoveRegistryValues", "", "2600"]]


class OsAndRegistry(InstallerCase):
    def setUp(self):
        super().setUp()
        # The packages are 64-bit: their values live in the 64-bit view.
        self.key = "Software\\SetupUtilsTest\\" + self.name[:30]
        self.scratch_keys("HKLM\\" + self.key)

    def value(self, name):
        """The value's data as `reg export` writes it (type and bytes), or None."""
        return registry_values(self.prefix, "HKLM\\" + self.key).get("HKLM\\" + self.key, {}).get(name)

    def test_the_true_version_and_both_machines(self):
        package = Package("OsVersion").add_component("Main", [("r", "r.txt", "r")]).use_kit("GetOsVersionInfo")
        for version, expected_nt in (("win7", "601"), ("win10", "1000")):
            with self.subTest(version=version):
                self.prefix.wine("winecfg", "-v", version)
                try:
                    # A value given on the command line is no fact: it is cleared where it does not hold.
                    code, log = self.run_msiexec(package, "/i", "OS_WINDOWS11=1", log=f"{version}.log")
                    self.prefix.wine("msiexec", "/x", self.prefix.windows_path(package.msi), "/qn")
                finally:
                    self.prefix.wine("winecfg", "-v", "win7")
                self.assertEqual(code, 0, log[-3000:])
                props = properties(log)
                self.assertEqual(props.get("OS_VERSIONNT"), expected_nt)
                self.assertNotIn("OS_WINDOWS11", props)
                self.assertEqual(props.get("OS_NATIVE_MACHINE"), "x64")
                # The shipped DLL runs in a 32-bit process under WOW64.
                self.assertEqual(props.get("OS_PROCESS_MACHINE"), "x86" if ARCH == "x86" else "x64")
                lines = library_lines(log, "GetOsVersionInfo")
                self.assertIn(f"Property OS_VERSIONNT = '{expected_nt}' (RtlGetVersion (major * 100 + minor)).", lines)
                if version == "win10":
                    self.assertEqual(props.get("VersionNT"), "603")  # the installer's own, capped
                    self.assertTrue(props.get("OS_VERSION", "").startswith("10.0."), props.get("OS_VERSION"))

    def qword_package(self, name, fail=False):
        package = Package(name).add_component("Main", [("r", "r.txt", "r")])
        package.tables["Registry"] = (REGISTRY_HEADER, [["RegBig", "2", self.key, "Big", "#x0000000000000000", "Main"]])
        package.add_table("RegistryQword", [("RegBig", "[BIGVALUE]", "")]).add_property("BIGVALUE", "5000000000")
        package.sequence += REGISTRY_ACTIONS
        return package.fail_at(6550) if fail else package

    def test_a_qword_is_written_rolled_back_to_what_was_there_and_removed_on_uninstall(self):
        # No value before: a failed install leaves none.
        state = MachineState(self.prefix, registry_keys=["HKLM\\" + self.key])
        before = state.capture()
        log = self.run_expecting(1603, self.qword_package("QwordFails", fail=True), "/i", log="failing.log")
        self.assertEqual(differences(before, state.capture()), [])
        # A value before: the library's rollback writes it back, type and data.
        # Wine's own rollback of WriteRegistryValues then removes the value
        # (Windows restores it): a limit of Wine, not of the library.
        self.prefix.reg("add", "HKLM\\" + self.key, "/v", "Big", "/t", "REG_SZ", "/d", "old", "/f")
        log = self.run_expecting(1603, self.qword_package("QwordFailsOld", fail=True), "/i", log="failing-old.log")
        self.assertIn(f"Write registry value: Key '{self.key}', Name 'Big', Value 'old'.",
                      library_lines(log, "FixQwordRegistryRollback"))

        package = self.qword_package("Qword")
        log = self.run_expecting(0, package, "/i")
        self.assertEqual(self.value("Big"), "hex(b):00,f2,05,2a,01,00,00,00")
        self.assertIn("Need to write qword registry row 'RegBig'. Component 'Main' to do 1.",
                      library_lines(log, "FixQwordRegistry"))
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertIsNone(self.value("Big"))

        # A row naming no Registry row is an authoring error, not a row to pass over.
        package = self.qword_package("QwordDangling")
        package.tables["RegistryQword"][1].append(["RegGone", "1", ""])
        log = self.run_expecting(1603, package, "/i", log="dangling.log")
        self.assertIn("The RegistryQword row 'RegGone' names no Registry row. Error 0x80070057.",
                      library_lines(log, "FixQwordRegistry"))

    def test_dwords_fed_from_properties_are_written_as_meant(self):
        rows = [["RegHex", "2", self.key, "Hex", "#[HEX]", "Main"], ["RegPlus", "2", self.key, "Plus", "#[PLUS]", "Main"],
                ["RegBlank", "2", self.key, "Blank", "#[BLANK]", "Main"]]
        package = Package("IntegerProperties").add_component("Main", [("r", "r.txt", "r")])
        package.tables["Registry"] = (REGISTRY_HEADER, rows)
        package.use_kit("FixRegistryIntegerProperties").add_property("HEX", "0x1F").add_property("PLUS", "+42")
        package.add_property("BLANK", "8080")
        package.sequence += REGISTRY_ACTIONS
        log = self.run_expecting(0, package, "/i", "BLANK= 8080 ")
        self.assertEqual([self.value(n) for n in ("Hex", "Plus", "Blank")],
                         ["dword:0000001f", "dword:0000002a", "dword:00001f90"])
        self.assertIn("Property HEX for Registry row 'RegHex': '0x1F' becomes '31'.",
                      library_lines(log, "FixRegistryIntegerProperties"))
        self.run_msiexec(package, "/x", log="uninstall.log")

        log = self.run_expecting(1603, package, "/i", "HEX=5000000000", log="toobig.log")
        self.assertIn("The value '5000000000' of property HEX for Registry row 'RegHex' is not a DWORD: it is out of "
                      "range. Error 0x80070057.", library_lines(log, "FixRegistryIntegerProperties"))


if __name__ == "__main__":
    unittest.main()
