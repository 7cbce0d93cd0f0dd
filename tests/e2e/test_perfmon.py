"""PerfmonEx through real msiexec with the recording doubles of loadperf.dll,
lodctr.exe and unlodctr.exe: the exact calls, a stale registration unloaded
first, a failed load rolled back with the Performance values back byte for
byte, a failure as a warning with 0x4, a repair that registers once, and an
uninstall that unloads before the values go."""

import unittest

from machine_state import PerfDouble, export_key
from msipackage import InstallerCase, Prefix, library_lines, scratch_dir

MANIFEST, CREATE_KEY, WARN = 0x1, 0x2, 0x4
GUID = "{5B3B1D6E-0C55-4C53-9D2B-2C1F0E9A7B11}"


class Perfmon(InstallerCase):
    @classmethod
    def setUpClass(cls):
        cls.double = cls.enterClassContext(PerfDouble(Prefix(), scratch_dir("perf-originals")))

    def setUp(self):
        super().setUp()
        self.double.use_in(self.prefix)
        self.service = "SetupUtilsPerf" + self.name[-12:]
        self.key = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{self.service}"
        self.scratch_keys(self.key)

    def package(self, attributes=CREATE_KEY):
        ini = (f"[info]\r\ndrivername={self.service}\r\nsymbolfile=counters.h\r\n[languages]\r\n009=English\r\n"
               "[text]\r\nOBJ_009_NAME=Demo\r\n")
        files = [("counters_ini", "counters.ini", ini), ("counters_h", "counters.h", "#define OBJ 0\r\n#define C1 2\r\n"),
                 ("counters_man", "counters.man", f'<counters><provider providerGuid="{GUID}"/></counters>')]
        return self.table_package("PerfmonEx", [
            ("Legacy", "Main", self.service, "[#counters_ini]", "[INSTALLDIR]perf.dll", "", str(attributes), ""),
            ("Man", "Main", "DemoProvider", "[#counters_man]", "", "[INSTALLDIR]", str(MANIFEST), "")], files=files)

    def test_register_repair_and_unregister_with_the_exact_calls(self):
        package = self.package()
        win = f"C:\\Program Files\\{package.directory}"
        self.run_expecting(0, package, "/i", log="install.log")
        self.assertEqual(self.double.calls(), [
            f'LoadPerfCounterTextStringsW quiet|lodctr "{win}\\counters.ini"',
            f'lodctr|"C:\\windows\\system32\\lodctr.exe" /m:"{win}\\counters.man" "{win}"'])
        self.assertIn('"Library"="C:\\\\Program Files\\\\', export_key(self.prefix, self.key + "\\Performance"))
        # A repair unloads and loads each set once.
        self.double.use_in(self.prefix)
        self.run_expecting(0, package, "/i", "REINSTALL=ALL", "REINSTALLMODE=vomus", log="repair.log")
        self.assertEqual([c.split("|")[0] for c in self.double.calls()],
                         ["UnloadPerfCounterTextStringsW quiet", "unlodctr", "LoadPerfCounterTextStringsW quiet",
                          "lodctr"])
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        lines = library_lines(log, "UnregisterPerfmonExDeferred")
        unload = lines.index(f"Call UnloadPerfCounterTextStringsW(unlodctr {self.service}).")
        removal = next(i for i, line in enumerate(lines) if line.startswith("Remove registry value:"))
        self.assertLess(unload, removal)  # unloaded while its values were there
        self.assertIsNone(export_key(self.prefix, self.key + "\\Performance"))

    def test_stale_sets_failures_and_warnings(self):
        self.prefix.reg("add", self.key + "\\Performance", "/v", "First Counter", "/t", "REG_DWORD", "/d", "1234", "/f")
        self.prefix.reg("add", self.key + "\\Performance", "/v", "Mine", "/t", "REG_BINARY", "/d", "00ff", "/f")
        before = export_key(self.prefix, self.key)
        # A stale registration is unloaded first; a failed load rolls everything back.
        self.double.fail_when(("LoadPerfCounterTextStringsW", 5))
        log = self.run_expecting(1603, self.package(), "/i", log="failed.log")
        self.assertIn("The performance counters 'SetupUtilsPerf" + self.name[-12:] + "' are registered already: unload "
                      "them first.", library_lines(log, "RegisterPerfmonExDeferred"))
        self.assertTrue(any(line.endswith("LoadPerfCounterTextStringsW returned 5. Error 0x80070005.")
                            for line in library_lines(log, "RegisterPerfmonExDeferred")))
        self.assertEqual(self.double.calls()[-1], f"UnloadPerfCounterTextStringsW quiet|unlodctr {self.service}")
        self.assertEqual(export_key(self.prefix, self.key), before)
        # With 0x4 the same failure is a warning, and the install goes on.
        log = self.run_expecting(0, self.package(CREATE_KEY | WARN), "/i", log="warning.log")
        self.assertIn(f"Warning: Failed to register performance counters 'Legacy'. LoadPerfCounterTextStringsW "
                      "returned 5. Error 0x80070005.", library_lines(log, "RegisterPerfmonExDeferred"))


if __name__ == "__main__":
    unittest.main()
