"""PermissionEx through real msiexec. A registry key (Wine keeps real
descriptors for keys, in the server's memory): the row's entry is merged in
beside an existing explicit one, named through [ACCOUNT_USERS]. The descriptor
comes back byte for byte after a forced rollback and after uninstall. A repair
keeps the recorded original, and an administrator's later entry survives
uninstall. A file (Wine keeps only its mode bits) gets them back. A bad SDDL
is refused before anything is scheduled."""

import os
import unittest

from machine_state import fresh_folder
from msipackage import TEST_TOOLS, InstallerCase, library_lines

RECORDS = "HKLM\\Software\\Setup Utils\\PermissionEx"  # reg.exe has the DLL's bitness: the same view
REPLACE, PROTECT, CHILDREN, VIEW64, EXACT = 0x1, 0x4, 0x20, 0x40, 0x200


class Permissions(InstallerCase):
    def key_sddl(self, key, set_to=None):
        """(SDDL, self-relative bytes in hex) of HKLM\\<key> in the 64-bit view, or sets its DACL."""
        result = self.prefix.wine(str(TEST_TOOLS / "key_sddl.exe"), key, *([set_to] if set_to else []))
        self.assertEqual(result.returncode, 0, result.stderr)
        return tuple(result.stdout.decode().split())

    def package(self, rows, **properties):
        package = self.table_package("PermissionEx", [(i, "Main", str(t), o, r, s, "", str(a))
                                                      for i, t, o, r, s, a in rows], **properties)
        return package.use_kit("GetWellKnownSids", "ForceRollback")

    def test_a_key_merges_rolls_back_and_uninstalls_exactly(self):
        key = "Software\\SetupUtilsPerm\\" + self.name
        self.scratch_keys("HKLM\\" + key)
        self.prefix.reg("add", "HKLM\\" + key, "/f")
        self.key_sddl(key, "D:(A;;KA;;;BA)(A;CI;KR;;;AU)")  # an explicit entry of the machine's own
        before = self.key_sddl(key)
        package = self.package([("Perm", 2, key, "2", "D:(A;CI;KA;;;[ACCOUNT_USERS])", VIEW64)])
        log = self.run_expecting(1603, package, "/i", "SETUPUTILS_FORCE_ROLLBACK=1", log="forced.log")
        self.assertIn("Account 'Users' of permissions 'Perm' is S-1-5-32-545.", library_lines(log, "InstallPermissions"))
        self.assertEqual(self.key_sddl(key), before)

        self.run_expecting(0, package, "/i", log="install.log")
        installed = self.key_sddl(key)[0]
        self.assertTrue(installed.endswith("D:(A;;KA;;;BA)(A;CI;KR;;;AU)(A;CI;KA;;;BU)"), installed)
        self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual(self.key_sddl(key), before)

        # An administrator adds an entry after the install; a repair keeps
        # the recorded original; uninstall takes back only the row's entry.
        self.run_expecting(0, package, "/i", log="install-again.log")
        record = self.prefix.reg_query(f"{RECORDS}\\{package.product_code}", "Perm")
        self.assertIn(before[1], record)
        self.key_sddl(key, self.key_sddl(key)[0].split("D:", 1)[1].join(["D:", "(A;;KR;;;SY)"]))
        self.run_expecting(0, package, "/i", "REINSTALL=ALL", "REINSTALLMODE=vomus", log="repair.log")
        self.assertEqual(self.prefix.reg_query(f"{RECORDS}\\{package.product_code}", "Perm"), record)
        self.run_expecting(0, package, "/x", log="uninstall-again.log")
        self.assertTrue(self.key_sddl(key)[0].endswith("D:(A;;KA;;;BA)(A;CI;KR;;;AU)(A;;KR;;;SY)"))
        self.assertIsNone(self.prefix.reg_query(f"{RECORDS}\\{package.product_code}"))

    def test_existing_children_receive_the_entry_and_give_it_back(self):
        key = "Software\\SetupUtilsPerm\\" + self.name
        self.scratch_keys("HKLM\\" + key)
        self.prefix.reg("add", "HKLM\\" + key + "\\A\\B", "/f")
        self.key_sddl(key + "\\A\\B", "D:P(A;;KA;;;BA)")  # a protected child keeps its own
        before = [self.key_sddl(k) for k in (key, key + "\\A", key + "\\A\\B")]
        package = self.package([("Tree", 2, key, "2", "D:(A;CI;KR;;;AU)", VIEW64 | CHILDREN)])
        self.run_expecting(1603, package, "/i", "SETUPUTILS_FORCE_ROLLBACK=1", log="forced.log")
        self.assertEqual([self.key_sddl(k) for k in (key, key + "\\A", key + "\\A\\B")], before)
        self.run_expecting(0, package, "/i", log="install.log")
        self.assertIn("(A;CIID;KR;;;AU)", self.key_sddl(key + "\\A")[0])
        self.assertEqual(self.key_sddl(key + "\\A\\B"), before[2])
        self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual([self.key_sddl(k) for k in (key, key + "\\A", key + "\\A\\B")], before)

    def test_a_file_gets_its_mode_back_and_a_bad_sddl_changes_nothing(self):
        win = "C:\\permt\\" + self.name
        folder = fresh_folder(self.prefix.host_path(win))
        path = folder / "f.txt"
        path.write_text("x")
        # Wine makes a file's descriptor up from its mode (measured: 0644 reads
        # as FA for the owner and read-and-execute for everyone, and writing
        # that back gives 0775): only a mode that survives its own made-up
        # descriptor can come back exactly.
        os.chmod(path, 0o775)
        package = self.package([("File", 0, f"{win}\\f.txt", "", "D:P(A;;FR;;;WD)", REPLACE | PROTECT | EXACT)])
        self.run_expecting(1603, package, "/i", "SETUPUTILS_FORCE_ROLLBACK=1", log="forced.log")
        self.assertEqual(path.stat().st_mode & 0o777, 0o775)
        self.run_expecting(0, package, "/i", log="install.log")
        self.assertEqual(path.stat().st_mode & 0o777, 0o444)
        self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual(path.stat().st_mode & 0o777, 0o775)

        bad = self.package([("Bad", 0, f"{win}\\f.txt", "", "D:(A;;FA;;WD)", 0)])
        log = self.run_expecting(1603, bad, "/i", log="bad.log")
        self.assertIn("The PermissionEx row 'Bad' cannot act: the SDDL 'D:(A;;FA;;WD)' does not parse: the entry "
                      "'(A;;FA;;WD)' does not have six fields. Error 0x80070057.", library_lines(log, "InstallPermissions"))
        self.assertNotIn("InstallPermissionsDeferred", log)
        self.assertEqual(path.stat().st_mode & 0o777, 0o775)
        # Wine's service security is a stub that reads as an empty DACL: never captured.
        log = self.run_expecting(1603, self.package([("Svc", 3, "PlugPlay", "", "D:(A;;LCRP;;;AU)", 0)]), "/i",
                                 log="service.log")
        self.assertTrue(any("its DACL reads as empty (D:)" in line
                            for line in library_lines(log, "InstallPermissionsDeferred")), log[-3000:])


if __name__ == "__main__":
    unittest.main()
