"""Fault injection: an install (or uninstall) that fails at a chosen point must
leave the machine exactly as it was before it: files with their bytes, times
and attributes, the restart-time rename list byte for byte (or absent), the
registered manifests. Every family adds its fault points here.

Each case prepares the machine, records it (machine_state.MachineState), runs
the failing install through the real msiexec, records it again and compares.
"""

import contextlib
import os
import shutil
import unittest

from cabinet import A_ARCH, A_HIDDEN, A_RDONLY, cabinet_bytes
from machine_state import HeldFile, Manifests, MachineState, WevtutilDouble, differences, fresh_folder, old_file, \
    rename_value, set_rename_value, utf16_hex
from msipackage import TEST_TOOLS, WOW, InstallerCase, Package, Prefix, library_lines, scratch_dir

BEFORE_TEXT_FILES = 4400   # InstallTextFiles schedules at 4500
AFTER_REGISTRY = 5025      # InstallRegFiles schedules at 5020
AFTER_REGISTRY_REMOVAL = 2650  # UninstallRegFiles schedules at 2590
AFTER_REMOVE_FILES = 3515  # RemoveFilesEx schedules at 3510
AFTER_MOVE_FILES = 4515   # MoveFilesEx schedules at 4510
AFTER_CABINETS = 4025     # InstallCabs schedules at 4020
AFTER_CABINET_REMOVAL = 3497  # UninstallCabs schedules at 3495
AFTER_XML_FILES = 4035    # InstallXmlFiles schedules at 4030
AFTER_XML_UNDO = 3494     # UninstallXmlFiles schedules at 3493
AFTER_PERMISSIONS = 5035  # InstallPermissions schedules at 5030
AFTER_PERFMON = 5855       # RegisterPerfmonEx schedules at 5850
AFTER_EVERYTHING = 6550    # after every family's deferred work, before InstallFinalize
# Where the deferred actions record the work folders they make: empty again after a rollback.
WORK_FOLDERS = "HKLM\\Software\\" + WOW + "Setup Utils\\WorkFolders"

# Another program's entries: a replacing rename (the "!" form), a deletion and a plain rename.
FOREIGN = ["\\??\\C:\\Foreign\\new.dll", "!\\??\\C:\\Foreign\\app.dll",
           "\\??\\C:\\Foreign\\old.dll", "",
           "\\??\\C:\\Foreign\\a.dll", "\\??\\C:\\Foreign\\b.dll"]


class FaultCase(InstallerCase):
    clears_renames = True

    def assertUnchanged(self, before, after, log):
        diff = differences(before, after)
        self.assertEqual(diff, [], "\n".join(diff) + "\n" + log[-3000:])

    def fails_unchanged(self, package, state, mode="/i", log="install.log", line=None, action=None, hold=None):
        """Runs `package` (`mode` /i or /x), which must fail, and compares `state`
        before and after; `line` must be among the lines `action` logged;
        `hold` (a Windows path, a share mode) is held open meanwhile."""
        before = state.capture()
        with HeldFile(self.prefix, *hold) if hold else contextlib.nullcontext():
            text = self.run_expecting(1603, package, mode, log=log)
        if line:
            self.assertIn(line, library_lines(text, action))
        self.assertUnchanged(before, state.capture(), text)
        return text

    @staticmethod
    def fault_points(after_the_work):
        """(a name, a sequence): a failure right after the family's deferred work, and one at the end."""
        return (("AfterTheWork", after_the_work), ("AtTheEnd", AFTER_EVERYTHING))

    def install(self, package):
        self.run_expecting(0, package, "/i")


class TextFileFaults(FaultCase):
    """Three targets in the install folder: 1.ini and 2.ini exist (old bytes,
    an old time), 3.ini does not. Each case fails somewhere and compares."""

    def package(self, name, files=("1.ini", "2.ini", "3.ini"), fail_at=AFTER_EVERYTHING, **properties):
        package = Package(name[:48]).add_component("Main", [("readme", "readme.txt", "r")])
        package.add_table("TextFile", [(f"{f}-{i}", f"[INSTALLDIR]{f}", f"line {i} of {f}", "Main", "")
                                       for f in files for i in (1, 2)])
        for key, value in properties.items():
            package.add_property(key, value)
        if fail_at is not None:
            package.fail_at(fail_at)
        self.folder = package.install_dir(self.prefix)
        self.folder.mkdir(parents=True)
        return package

    def existing(self, name, data=None, mode=0o644):
        return old_file(self.folder / name, f"old {name}\r\n".encode("utf-16") if data is None else data, mode)

    def windows(self, name):
        return "C:\\Program Files\\" + self.folder.name + "\\" + name

    def check(self, package, hold=None):
        return self.fails_unchanged(package, MachineState(self.prefix, [self.folder]),
                                    hold=hold and (self.windows(hold[0]), hold[1]))

    def test_fault_points(self):
        cases = {
            "before the deferred action": dict(fail_at=BEFORE_TEXT_FILES),
            "after the deferred action": dict(),
            "LOCKFILESONUPDATE=1, no rename list before": dict(LOCKFILESONUPDATE="1"),
        }
        for case, options in cases.items():
            with self.subTest(case=case):
                package = self.package("Faults" + case.replace(" ", "").replace("=", "")[:30], **options)
                self.existing("1.ini")
                self.existing("2.ini", b"")  # 0 bytes
                log = self.check(package)
                if "LOCKFILESONUPDATE" in options:
                    rollback = library_lines(log, "InstallTextFilesRollback")
                    self.assertIn(f"The file '{self.windows('1.ini')}' was not changed.", rollback)

    def test_failure_inside_the_deferred_action_at_item_2_of_3(self):
        package = self.package("FaultInside", fail_at=None)
        self.existing("1.ini")
        (self.folder / "2.ini").mkdir()  # a folder where the file should go: its write fails
        log = self.check(package)
        self.assertIn(f"Failed to write file '{self.windows('2.ini')}'. Error 0x80070005.",
                      library_lines(log, "InstallTextFilesDeferred"))

    def test_foreign_rename_entries_stay_byte_for_byte(self):
        # Another program's entries, or an empty list of 0 bytes another program left.
        for lock, value in (("1", utf16_hex(FOREIGN)), ("0", utf16_hex(FOREIGN)), ("1", b"")):
            with self.subTest(LOCKFILESONUPDATE=lock, bytes=len(value)):
                package = self.package(f"FaultForeign{lock}{len(value)}", LOCKFILESONUPDATE=lock)
                self.existing("1.ini")
                set_rename_value(self.prefix, value)
                foreign = rename_value(self.prefix)
                self.check(package)
                self.assertEqual(rename_value(self.prefix), foreign)

    def test_read_only_targets(self):
        package = self.package("FaultReadOnly")
        self.existing("1.ini", mode=0o444)
        self.existing("2.ini", mode=0o444)
        self.check(package)

    def test_targets_held_open_by_another_program(self):
        for share, lock in (("read", "0"), ("none", "0"), ("none", "1")):
            with self.subTest(share=share, LOCKFILESONUPDATE=lock):
                package = self.package(f"FaultHeld{share}{lock}", LOCKFILESONUPDATE=lock)
                self.existing("1.ini")
                self.existing("2.ini")
                self.check(package, hold=("2.ini", share))

    def test_three_hundred_files_and_one_of_five_megabytes(self):
        names = [f"f{i:03}.txt" for i in range(300)]
        package = self.package("FaultMany", files=names)
        self.existing("f000.txt", os.urandom(5 * 1024 * 1024))
        for name in names[1:150:7]:
            self.existing(name)
        self.check(package)


class EventManifestFaults(FaultCase):
    @classmethod
    def setUpClass(cls):
        cls.double = cls.enterClassContext(WevtutilDouble(Prefix(), scratch_dir("wevtutil-original-faults")))

    def setUp(self):
        super().setUp()
        self.double.use_in(self.prefix)

    def package(self, name):
        package = Package(name).add_component("Manifests", [(f"ev{i}", f"m{i}.man", "<m/>") for i in (1, 2, 3)])
        package.add_table("EventManifest", [(f"M{i}", "Manifests", f"[#ev{i}]") for i in (1, 2, 3)])
        self.paths = [f"C:\\Program Files\\{package.directory}\\m{i}.man" for i in (1, 2, 3)]
        return package

    def state(self, package):
        # Wine's own rollback removes the install folder when it is empty,
        # even one that existed before: a file of the user's keeps it.
        folder = package.install_dir(self.prefix)
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "user.txt").write_bytes(b"user")
        return MachineState(self.prefix, [package.install_dir(self.prefix)], manifests=Manifests(self.double.calls_path))

    def test_install_fails_inside_and_after_the_deferred_action(self):
        for case in ("inside", "after"):
            with self.subTest(case=case):
                self.double.calls_path.unlink(missing_ok=True)
                package = self.package(f"FaultManifests{case}")
                if case == "after":
                    package.fail_at(AFTER_EVERYTHING)
                else:
                    self.double.fail_when((WevtutilDouble.command("im", self.paths[1]), 5))
                self.fails_unchanged(package, self.state(package), log=f"{case}.log")
                self.double.fail_when()

    def test_uninstall_fails_after_its_deferred_action(self):
        package = self.package("FaultManifestsUninstall").fail_at(3495, 'REMOVE="ALL"')
        self.install(package)
        state = self.state(package)
        self.assertEqual(state.capture()["manifests"], sorted(self.paths))
        self.fails_unchanged(package, state, "/x", "uninstall.log")

    def test_a_manifest_registered_before_the_install_is_unregistered_by_its_rollback(self):
        # A documented limit (docs/EventManifest.md): the immediate action
        # cannot tell an earlier registration from none, so the rollback of a
        # failed install unregisters every manifest of its rows.
        package = self.package("FaultManifestsEarlier").fail_at(AFTER_EVERYTHING)
        earlier = Manifests(self.double.calls_path).registered({self.paths[0]})
        self.run_expecting(1603, package, "/i")
        self.assertEqual(sorted(Manifests(self.double.calls_path).registered(earlier)), [])


class RegistryFaults(FaultCase):
    """RegistryEx rows over values that exist (of other types), values and
    keys that do not, a whole key removed on install, and a registry file
    over an older one: a failed install or uninstall leaves every value, type
    and key as it was."""

    def setUp(self):
        super().setUp()
        self.key = "Software\\SetupUtilsFault\\" + self.name
        self.native = "HKLM\\Software\\" + WOW + "SetupUtilsFault\\" + self.name
        self.scratch_keys(self.native)
        self.reg = self.prefix.reg

    def package(self, name, **fail):
        k = self.key
        rows = [("Over", "2", k, "Over", "#7", "Main", "0", "", ""),
                ("New", "2", k, "New", "a[\\[]~[\\]]b", "Main", "0", "", ""),
                ("Deep", "2", k + "\\X\\Y", "Deep", "#x00ff", "Main", "0", "", ""),
                ("Empty", "2", k + "\\Empty\\Below", "V", "v", "Main", "0", "", ""),  # below a key that was empty
                ("Doomed", "2", k + "\\Doomed", "", "", "Main", "9", "", ""),
                ("Default", "2", k, "", "#%%TEMP%", "Main", "0", "", ""),
                ("File", "2", k, "InFile", "x", "Main", "0", "", "[INSTALLDIR]values.reg")]
        package = Package(name[:48]).add_component("Main", [("readme", "readme.txt", "r")])
        package.add_table("RegistryEx", rows)
        if fail:
            package.fail_at(*fail["at"])
        self.folder = package.install_dir(self.prefix)
        return package

    def prepare(self):
        # Longer than the first buffer the snapshot reads into.
        self.reg("add", self.native, "/v", "Over", "/t", "REG_SZ", "/d", "old" * 400, "/f")
        self.reg("add", self.native, "/ve", "/t", "REG_BINARY", "/d", "00", "/f")
        # Wine's reg.exe gives a key it adds an empty default value: an empty key is what is left of a deeper one.
        self.reg("add", self.native + "\\Empty\\Gone", "/f")
        self.reg("delete", self.native + "\\Empty\\Gone", "/f")
        self.reg("add", self.native + "\\Doomed\\Inner", "/v", "I", "/t", "REG_DWORD", "/d", "3", "/f")
        old_file(self.folder / "values.reg", "Windows Registry Editor Version 5.00\r\n".encode("utf-16"))
        return MachineState(self.prefix, [self.folder], registry_keys=[self.native])

    def test_install_fails_after_the_registry_work(self):
        for case, at in self.fault_points(AFTER_REGISTRY):
            with self.subTest(case=case):
                self.fails_unchanged(self.package("FaultRegistry" + case, at=(at,)), self.prepare(), log=case + ".log",
                                     line="Remove registry key: Key '" + self.key + "\\Doomed'.",
                                     action="InstallRegistryDeferred")
                self.reg("delete", self.native, "/f")

    def test_uninstall_fails_after_its_removals(self):
        package = self.package("FaultRegistryUninstall", at=(AFTER_REGISTRY_REMOVAL, 'REMOVE="ALL"'))
        self.prepare()
        self.install(package)
        self.fails_unchanged(package, MachineState(self.prefix, registry_keys=[self.native]), "/x", "uninstall.log",
                             "Remove registry value: Key '" + self.key + "', Name 'New'.", "UninstallRegistryDeferred")


class PermissionFaults(FaultCase):
    """A key with an explicit entry of its own gets the row's entry merged in:
    a failure after it puts the descriptor back byte for byte and leaves no
    record or capture."""

    def test_install_fails_after_the_permission_work(self):
        key = "Software\\SetupUtilsFault\\" + self.name
        records = "HKLM\\Software\\" + WOW + "Setup Utils\\PermissionEx"
        self.scratch_keys("HKLM\\" + key)
        self.prefix.reg("add", "HKLM\\" + key, "/f")
        self.prefix.wine(str(TEST_TOOLS / "key_sddl.exe"), key, "D:(A;;KA;;;BA)(A;;KR;;;AU)")
        for case, at in self.fault_points(AFTER_PERMISSIONS):
            with self.subTest(case=case):
                package = Package(("FaultPermissions" + case)[:48]).add_component("Main", [("r", "r.txt", "r")])
                package.add_table("PermissionEx", [("Key", "Main", "2", key, "2", "D:(A;CI;KA;;;BU)", "", "64")])
                state = MachineState(self.prefix, registry_keys=[records], descriptors=[key])
                self.fails_unchanged(package.fail_at(at), state, log=case + ".log", action="InstallPermissionsDeferred",
                                     line=f"Record the permissions 'Key' under 'Software\\Setup Utils\\PermissionEx\\"
                                          f"{package.product_code}'.")


class PerfmonFaults(FaultCase):
    """A legacy counter set over a Performance key of another install's
    values: a failure after the registration puts the key back byte for byte."""

    def test_install_fails_after_the_counter_registration(self):
        service = "SetupUtilsPerfFault"
        key = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\" + service
        self.scratch_keys(key)
        self.prefix.reg("add", key + "\\Performance", "/v", "First Counter", "/t", "REG_DWORD", "/d", "7", "/f")
        ini = f"[info]\r\ndrivername={service}\r\n[languages]\r\n009=English\r\n"
        for case, at in self.fault_points(AFTER_PERFMON):
            with self.subTest(case=case):
                package = Package(("FaultPerfmon" + case)[:48]).add_component("Main", [("ini", "c.ini", ini)])
                package.add_table("PerfmonEx", [("Set", "Main", service, "[#ini]", "[INSTALLDIR]p.dll", "", "0", "")])
                self.fails_unchanged(package.fail_at(at), MachineState(self.prefix, registry_keys=[key]),
                                     log=case + ".log", action="RegisterPerfmonExDeferred",
                                     line=f'Call LoadPerfCounterTextStringsW(lodctr "C:\\Program Files\\'
                                          f'{package.directory}\\c.ini").')


class MoveFileFaults(FaultCase):
    """MoveFileEx rows that copy and move over existing files and into new
    folders, in the immediate and deferred phases, beside another program's
    restart-time renames: a failure anywhere leaves files, times, folders and
    the rename list as they were, and moved files back at their sources."""

    MOVE, IMMEDIATE, DEFERRED, COMMIT, ROLLBACK, AT_RESTART = 0x20, 0x100, 0x200, 0x400, 0x800, 0x1000

    def setUp(self):
        super().setUp()
        self.win = "C:\\mfx-fault\\" + self.name
        fresh_folder(self.prefix.host_path("C:\\mfx-fault"))
        self.root = fresh_folder(self.prefix.host_path(self.win))

    def file(self, name, data):
        old_file(self.root / name, data)

    def rows(self):
        w, install = self.win, 0x1
        self.file("src.txt", b"source")
        self.file("over.txt", b"old over")
        self.file("now.txt", b"old now")
        self.file("move-me.txt", b"moving")
        self.file("move-over.txt", b"old move-over")
        self.file("move-me-2.txt", b"moving too")
        self.file("later.txt", b"at restart")
        return [
            ("Over", f"{w}\\src.txt", f"{w}\\over.txt", install | self.DEFERRED),
            ("New", f"{w}\\src.txt", f"{w}\\new\\deep\\new.txt", install | self.DEFERRED),
            ("Now", f"{w}\\src.txt", f"{w}\\now.txt", install | self.IMMEDIATE),
            ("MoveOver", f"{w}\\move-me.txt", f"{w}\\move-over.txt", install | self.DEFERRED | self.MOVE),
            ("MoveNew", f"{w}\\move-me-2.txt", f"{w}\\moved\\two.txt", install | self.DEFERRED | self.MOVE),
            ("Later", f"{w}\\later.txt", f"{w}\\over.txt", install | self.DEFERRED | self.MOVE | self.AT_RESTART),
            ("OnRollback", f"{w}\\src.txt", "C:\\mfx-fault\\rolled-back.txt", install | self.ROLLBACK),
            ("OnCommit", f"{w}\\src.txt", "C:\\mfx-fault\\committed.txt", install | self.COMMIT),
        ]

    def check(self, name, rows, fail_at=AFTER_EVERYTHING, hold=None):
        package = self.table_package("MoveFileEx", [(i, "Main", s, d, str(a), "") for i, s, d, a in rows], name[:48],
                                     fail_at=fail_at)
        set_rename_value(self.prefix, utf16_hex(FOREIGN))
        return self.fails_unchanged(package, MachineState(self.prefix, [self.root]),
                                    hold=hold and (f"{self.win}\\{hold}", "none"))

    def test_install_fails_after_the_moves(self):
        for case, at in self.fault_points(AFTER_MOVE_FILES):
            with self.subTest(case=case):
                fresh_folder(self.root)
                rolled_back = self.prefix.host_path("C:\\mfx-fault\\rolled-back.txt")
                rolled_back.unlink(missing_ok=True)
                log = self.check("FaultMove" + case, self.rows(), fail_at=at)
                self.assertIn(f"Move file '{self.win}\\move-over.txt' -> '{self.win}\\move-me.txt'.",
                              library_lines(log, "MoveFilesExRollback"))
                # The rollback row ran; the commit row did not.
                self.assertEqual(rolled_back.read_bytes(), b"source")
                self.assertFalse(self.prefix.host_path("C:\\mfx-fault\\committed.txt").exists())

    def test_a_failing_row_inside_the_deferred_and_the_immediate_action(self):
        w = self.win
        missing = (f"{w}\\missing.txt", f"{w}\\x.txt")
        for phase in (self.DEFERRED, self.IMMEDIATE):
            with self.subTest(phase=hex(phase)):
                fresh_folder(self.root)
                rows = self.rows()
                rows.insert(4, ("Missing",) + missing + (0x1 | phase,))
                log = self.check(f"FaultMoveInside{phase}", rows, fail_at=None)
                action = "MoveFilesExDeferred" if phase == self.DEFERRED else "MoveFilesEx"
                self.assertIn(f"The source file '{w}\\missing.txt' does not exist. Error 0x80070002.",
                              library_lines(log, action))

    def test_a_destination_held_open_by_another_program(self):
        self.file("held.txt", b"held")
        self.file("src.txt", b"source")
        rows = [("Copy", f"{self.win}\\src.txt", f"{self.win}\\held.txt", 0x1 | self.DEFERRED),
                ("Move", f"{self.win}\\src.txt", f"{self.win}\\held.txt", 0x1 | self.DEFERRED | self.MOVE)]
        log = self.check("FaultMoveHeld", rows, hold="held.txt")
        self.assertIn(f"The file '{self.win}\\held.txt' is being used by another process.",
                      library_lines(log, "MoveFilesExDeferred"))


class RemoveFileFaults(FaultCase):
    """RemoveFileEx rows that remove a folder tree (with a link inside, which
    stays) and a pattern's files: a failure after them puts every file back with
    its bytes and times, and the folders, and leaves the rename list as it was."""

    def test_a_failed_install_puts_every_removed_file_back(self):
        root = self.prefix.host_path("C:\\rfx-fault")
        win = "C:\\rfx-fault"
        rows = [("Data", "Main", f"{win}\\data", "0", str(0x1 | 0x8 | 0x10), ""),
                ("Logs", "Main", f"{win}\\logs\\*.log", "0", str(0x1 | 0x8), ""),
                ("Gone", "Main", f"{win}\\gone", "0", str(0x1 | 0x10), ""),
                ("Later", "Main", f"{win}\\logs\\keep.txt", "4", "1", "")]
        for case, at in self.fault_points(AFTER_REMOVE_FILES):
            with self.subTest(case=case):
                shutil.rmtree(root, ignore_errors=True)
                for name in ("data/a.txt", "data/sub/b.log", "data/sub/deeper/c.log", "outside/precious.txt",
                             "logs/1.log", "logs/keep.txt", "logs/sub/3.log", "gone/x.txt"):
                    old_file(root / name, name.encode())
                os.symlink(root / "outside", root / "data" / "link")
                set_rename_value(self.prefix, utf16_hex(FOREIGN))
                self.fails_unchanged(self.table_package("RemoveFileEx", rows, "FaultRemove" + case, fail_at=at),
                                     MachineState(self.prefix, [root], registry_keys=[WORK_FOLDERS]),
                                     log=case + ".log",
                                     line=f"Remove folder '{win}\\gone'.", action="RemoveFilesExFinalize")


class CabinetFaults(FaultCase):
    """A CabPackage row that extracts into an existing folder, replacing files
    (one read-only, one hidden) and adding folders: a failure after it brings
    every replaced file back with its bytes, times and attributes, removes what
    it added and restores the record; a failed uninstall puts every removed
    file and folder back."""

    RECORDS = "HKLM\\Software\\" + WOW + "Setup Utils\\CabPackage"

    def package(self, name):
        cab = cabinet_bytes([("a.txt", b"new a"), ("ro.txt", b"new ro", A_RDONLY | A_ARCH),
                             ("hidden.txt", b"new hidden", A_HIDDEN), ("new\\deep\\b.txt", b"new b"),
                             ("sub\\c.txt", b"new c")])
        package = Package(name).add_component("Main", [("payload", "payload.cab", cab)])
        package.add_table("CabPackage", [("Data", "[#payload]", "[INSTALLDIR]data", "1", "Main", "")])
        return package

    def prepare(self, package):
        root = package.install_dir(self.prefix)
        for name, mode in (("a.txt", 0o644), ("ro.txt", 0o444), ("hidden.txt", 0o644), ("sub/other.txt", 0o644)):
            old_file(root / "data" / name, b"old " + name.encode(), mode)
        return MachineState(self.prefix, [root], registry_keys=[self.RECORDS, WORK_FOLDERS])

    def test_a_failed_install_brings_back_every_replaced_file(self):
        for case, at in self.fault_points(AFTER_CABINETS):
            with self.subTest(case=case):
                package = self.package("FaultCab" + case).fail_at(at)
                self.fails_unchanged(package, self.prepare(package), log=case + ".log",
                                     line=f"Replace file 'C:\\Program Files\\{package.directory}\\data\\ro.txt'.",
                                     action="InstallCabsDeferred")

    def test_a_failed_uninstall_puts_every_extracted_file_back(self):
        package = self.package("FaultCabUninstall").fail_at(AFTER_CABINET_REMOVAL, 'REMOVE="ALL"')
        state = self.prepare(package)
        self.install(package)
        self.fails_unchanged(package, state, "/x", "uninstall.log",
                             f"Remove folder 'C:\\Program Files\\{package.directory}\\data\\new\\deep'.",
                             "InstallCabsDeferred")


class XmlFileFaults(FaultCase):
    """XmlFile edits of two existing files (one read-only with an old time)
    and one file they create: a failed install leaves every file byte for
    byte, with its times and attributes, no created file and no records; a
    failed uninstall puts the edited files and the records back."""

    RECORDS = "HKLM\\Software\\" + WOW + "Setup Utils\\XmlFile"

    def package(self, name, win):
        rows = [("Port", f"{win}\\app.config", "//add[@key='port']", "0", "value", "8080", "", "1", "0"),
                ("Gone", f"{win}\\app.config", "//add[@key='gone']", "4", "", "", "", "2", "0"),
                ("Note", f"{win}\\other.xml", "/root", "2", "note", "n", "", "1", "0"),
                ("Fresh", f"{win}\\new.xml", "/fresh", "2", "child", "c", "", "1", "4")]
        package = Package(name).add_component("Main", [("readme", "readme.txt", "r")])
        package.add_table("XmlFile", [r[:9] + ("Main", "") for r in rows])
        return package

    def prepare(self, win):
        root = fresh_folder(self.prefix.host_path(win))
        old_file(root / "app.config", b'\xef\xbb\xbf<c>\r\n  <add key="port" value="80"/>\r\n'
                                      b'  <add key="gone" value="1"/>\r\n</c>\r\n')
        old_file(root / "other.xml", "<root>\n</root>\n".encode("utf-16"), 0o444)
        return MachineState(self.prefix, [root], registry_keys=[self.RECORDS])

    def test_a_failed_install_leaves_every_file_as_it_was(self):
        win = "C:\\xml-fault"
        for case, at in self.fault_points(AFTER_XML_FILES):
            with self.subTest(case=case):
                state = self.prepare(win)
                (self.prefix.host_path(win) / "other.xml").chmod(0o644)  # writable: the edit must happen
                self.fails_unchanged(self.package("FaultXml" + case, win).fail_at(at), state, log=case + ".log",
                                     line=f"Create xml file '{win}\\new.xml'.", action="InstallXmlFilesDeferred")

    def test_a_failed_uninstall_puts_edits_and_records_back(self):
        win = "C:\\xml-fault-uninstall"
        state = self.prepare(win)
        (self.prefix.host_path(win) / "other.xml").chmod(0o644)
        package = self.package("FaultXmlUninstall", win).fail_at(AFTER_XML_UNDO, 'REMOVE="ALL"')
        self.install(package)
        self.fails_unchanged(package, state, "/x", "uninstall.log",
                             f"Take back xml edit 'Gone' in '{win}\\app.config': 1 step(s).", "InstallXmlFilesDeferred")


if __name__ == "__main__":
    unittest.main()
