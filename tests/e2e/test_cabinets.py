"""CabPackage through real msiexec: a cabinet the package installs, with
subfolders, a UTF-8 name and a path longer than MAX_PATH, extracted byte for
byte; an existing file kept or replaced; uninstall removing exactly what was
extracted; names that leave the target, a corrupt cabinet and a missing one
refused clearly, as failures or as warnings. The forced rollbacks are in
test_fault_injection."""

import os
import shutil
import unittest

from cabinet import A_ARCH, A_RDONLY, cabinet_bytes
from msipackage import InstallerCase, library_lines

OVERWRITE, PER_USER, DELETE_CAB, KEEP, WARN = 0x1, 0x2, 0x4, 0x8, 0x10
LONG = "long\\" + "d" * 120 + "\\" + "e" * 120 + "\\f.txt"
RECORDS = "HKLM\\Software\\Setup Utils\\CabPackage"  # reg.exe has the DLL's bitness: the same view


def entries():
    return [("a.txt", b"alpha\r\n"), ("sub\\b.bin", bytes(range(256)) * 300),
            ("sub\\deeper\\c.txt", b"read only", A_RDONLY | A_ARCH), ("caf\u00e9.txt", b"utf-8 name"),
            (LONG, b"deep"), ("keep.txt", b"from the cabinet")]


class Cabinets(InstallerCase):
    def package(self, rows, cabinets, name=None):
        """`cabinets`: file name -> bytes, installed into INSTALLDIR; rows:
        (id, cabinet, target, attributes), all on the component Main."""
        files = [(f"cab{i}", file_name, data) for i, (file_name, data) in enumerate(cabinets.items())]
        return self.table_package("CabPackage", [(i, c, t, str(a), "Main", "") for i, c, t, a in rows], name=name,
                                  files=files)

    def tree(self, root):
        return sorted(str(p.relative_to(root)).replace(os.sep, "\\") for p in root.rglob("*"))

    def test_extract_keep_and_uninstall_exactly_what_was_extracted(self):
        package = self.package([("Data", "[INSTALLDIR]payload.cab", "[INSTALLDIR]data", 0)],
                               {"payload.cab": cabinet_bytes(entries())})
        root = package.install_dir(self.prefix)
        data = root / "data"
        data.mkdir(parents=True)
        (data / "keep.txt").write_bytes(b"mine")
        log = self.run_expecting(0, package, "/i", log="install.log")
        for name, content, *_ in entries()[:-1]:
            self.assertEqual((data / name.replace("\\", os.sep)).read_bytes(), content, name)
        self.assertEqual((data / "keep.txt").read_bytes(), b"mine")  # not overwritten without 0x1
        self.assertEqual((data / "sub" / "deeper" / "c.txt").stat().st_mode & 0o222, 0)  # read-only came along
        self.assertEqual([p.name for p in root.iterdir() if p.name.startswith("~cab")], [])  # commit cleaned up
        deferred = library_lines(log, "InstallCabsDeferred")
        win = f"C:\\Program Files\\{package.directory}\\data"
        self.assertIn(f"Extract file '{win}\\sub\\b.bin'.", deferred)
        self.assertIn(f"Keep the existing file '{win}\\keep.txt': the row does not overwrite files (0x1).",
                      deferred)
        self.assertIn(package.product_code, self.prefix.reg_query(RECORDS + "\\" + package.product_code) or "")

        (data / "sub" / "user.txt").write_bytes(b"added by the user")
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual(self.tree(data), ["keep.txt", "sub", "sub\\user.txt"])
        self.assertIn(f"Remove folder '{win}\\long'.", library_lines(log, "InstallCabsDeferred"))
        self.assertIsNone(self.prefix.reg_query(RECORDS + "\\" + package.product_code))

    def test_two_products_share_the_files_until_the_last_one_goes(self):
        """A major upgrade that removes the old product last: the new one takes
        over the extracted files, and the old one's uninstall leaves them."""
        shared = self.prefix.host_path("C:\\cabshared")
        shutil.rmtree(shared, ignore_errors=True)
        self.prefix.wine("reg", "delete", RECORDS, "/f")  # records of earlier runs would hold the files too
        cab = {"payload.cab": cabinet_bytes(entries()[:3])}
        old, new = (self.package([("Data", "[INSTALLDIR]payload.cab", "C:\\cabshared", 0)], cab, name=f"CabShared{n}")
                    for n in (1, 2))
        for package in (old, new):
            log = self.run_expecting(0, package, "/i", log=f"install-{package.name}.log")
        self.assertIn("Replace file 'C:\\cabshared\\a.txt'.", library_lines(log, "InstallCabsDeferred"))
        log = self.run_expecting(0, old, "/x", log="uninstall-old.log")
        self.assertIn("Leave 'C:\\cabshared\\a.txt' in place: the cabinet of another product placed it too.",
                      library_lines(log, "InstallCabsDeferred"))
        self.assertEqual(self.tree(shared), ["a.txt", "sub", "sub\\b.bin", "sub\\deeper", "sub\\deeper\\c.txt"])
        log = self.run_expecting(0, new, "/x", log="uninstall-new.log")
        self.assertFalse(shared.exists())

    def test_refused_names_corrupt_and_missing_cabinets(self):
        evil = cabinet_bytes([("ok.txt", b"ok"), ("..\\evil.txt", b"evil")])
        valid = cabinet_bytes(entries())
        cabinets = {"evil.cab": evil, "notcab.cab": b"MSCF but not a cabinet" * 10,
                    "cut.cab": valid[:len(valid) // 2], "good.cab": valid}
        rows = [("Evil", "[INSTALLDIR]evil.cab", "[INSTALLDIR]evil", WARN),
                ("NotCab", "[INSTALLDIR]notcab.cab", "[INSTALLDIR]notcab", WARN),
                ("Cut", "[INSTALLDIR]cut.cab", "[INSTALLDIR]cut", WARN),
                ("Missing", "[INSTALLDIR]none.cab", "[INSTALLDIR]none", WARN),
                ("Root", "[INSTALLDIR]good.cab", "C:\\", WARN),
                ("Good", "[INSTALLDIR]good.cab", "[INSTALLDIR]good", OVERWRITE | DELETE_CAB | PER_USER)]
        package = self.package(rows, cabinets)
        root = package.install_dir(self.prefix)
        log = self.run_expecting(0, package, "/i", log="install.log")
        warnings = [line for line in library_lines(log, "InstallCabsDeferred") if line.startswith("Warning: ")]
        win = f"C:\\Program Files\\{package.directory}"
        self.assertEqual(sorted(warnings), sorted([
            f"Warning: Refused to extract '..\\evil.txt' from cabinet '{win}\\evil.cab': it climbs out of the "
            "target folder ('..'). Error 0x80070005.",
            f"Warning: Failed to extract cabinet '{win}\\cut.cab': the cabinet is corrupt. Error 0x8007000b.",
            f"Warning: Failed to extract cabinet '{win}\\none.cab': the file does not exist. Error 0x80070002.",
            f"Warning: Failed to extract cabinet '{win}\\notcab.cab': it is not a cabinet file. Error 0x8007000b.",
            "Warning: Refused to extract cabinet 'Root' into 'C:\\': it is the root of a drive or share. "
            "Error 0x80070057."]), log[-4000:])
        # A failed row is taken back at once: nothing of it stays, nothing left the target.
        names = self.tree(root)
        self.assertEqual([n for n in names if not n.startswith("good")],
                         ["cut.cab", "evil.cab", "notcab.cab"])
        self.assertFalse((root.parent / "evil.txt").exists())
        # The per-user row ran impersonated; its cabinet went on commit.
        self.assertIn(f"Extract file '{win}\\good\\a.txt'.", library_lines(log, "InstallCabsDeferredUser"))
        self.assertIn(f"Remove cabinet '{win}\\good.cab'.", library_lines(log, "InstallCabsCommit"))

        strict = self.package([("Evil", "[INSTALLDIR]evil.cab", "[INSTALLDIR]evil", 0)], {"evil.cab": evil},
                              name=self.name[:30] + "Strict")
        log = self.run_expecting(1603, strict, "/i", log="strict.log")
        self.assertFalse(strict.install_dir(self.prefix).exists())
        self.assertTrue(any("Refused to extract '..\\evil.txt'" in line for line in log.splitlines()), log[-3000:])


if __name__ == "__main__":
    unittest.main()
