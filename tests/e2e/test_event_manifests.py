import unittest

from machine_state import WevtutilDouble
from msipackage import InstallerCase, Package, Prefix, library_lines, scratch_dir

MANIFESTS = (("ev1", "events one.man"), ("ev2", "second.man"), ("ev3", "third.man"))
command = WevtutilDouble.command


class EventManifests(InstallerCase):
    @classmethod
    def setUpClass(cls):
        cls.double = cls.enterClassContext(WevtutilDouble(Prefix(), scratch_dir("wevtutil-original")))

    def setUp(self):
        super().setUp()
        self.double.use_in(self.prefix)
        self.fail_when = self.double.fail_when
        self.calls = self.double.calls

    def make(self, rows=None):
        """Three manifests installed with one component; rows default to one per manifest."""
        package = Package(self.name).add_component("Manifests", [(fid, fname, "<instrumentationManifest/>")
                                                            for fid, fname in MANIFESTS])
        if rows is None:
            rows = [(f"M{i}", "Manifests", f"[#{fid}]") for i, (fid, _) in enumerate(MANIFESTS, 1)]
        package.add_table("EventManifest", rows)
        self.paths = [f"C:\\Program Files\\{package.directory}\\{fname}" for _, fname in MANIFESTS]
        return package

    def test_failed_registration_fails_the_install_and_rollback_unregisters_every_manifest(self):
        package = self.make()
        self.fail_when((command("im", self.paths[1]), 5), (command("um", self.paths[2]), 7))
        log = self.run_expecting(1603, package, "/i", log="install.log")
        # The second registration stops the deferred action; rollback takes
        # back the whole list and only logs the failure on the third.
        self.assertEqual(self.calls(), [command("im", self.paths[0]), command("im", self.paths[1])] +
                         [command("um", p) for p in self.paths])
        deferred = library_lines(log, "InstallEventManifestDeferred")
        self.assertIn(f"Failed to register event manifest '{self.paths[1]}'. Process returned error 5 "
                      "Error 0x80004005.", deferred)
        self.assertIn(f"> wevtutil double: failing '{command('im', self.paths[1])}'", deferred)  # its standard error
        rollback = library_lines(log, "InstallEventManifestRollback")
        self.assertIn(f"Ignore: failed to unregister event manifest '{self.paths[2]}'. Process returned error 7 "
                      "Error 0x80004005.", rollback)
        self.assertEqual(rollback[-1], "InstallEventManifestRollback: finished. Return value 0.")

    def test_missing_tool_skips_both_actions_and_schedules_nothing(self):
        package = self.make()
        self.double.tool.unlink()
        try:
            log = self.run_expecting(0, package, "/i", log="install.log")
            self.assertIn("Skip action InstallEventManifest. Wevtutil.exe is not exist.",
                          library_lines(log, "InstallEventManifest"))
            self.assertIn("Skip action UninstallEventManifest. Wevtutil.exe is not exist.",
                          library_lines(log, "UninstallEventManifest"))
            self.assertNotIn("InstallEventManifestDeferred", log)
            log = self.run_expecting(0, package, "/x", log="uninstall.log")
            self.assertNotIn("UninstallEventManifestDeferred", log)
        finally:
            self.double.install()
        self.assertEqual(self.calls(), [])

    def test_empty_file_or_component_fails_the_install(self):
        for rows, text in (([("M1", "Manifests", "")], "The file is empty in EventManifest table."),
                           ([("M1", "", "[#ev1]")], "The component is empty in EventManifest table.")):
            with self.subTest(text=text):
                package = self.make(rows)
                package.name += "Empty" + ("File" if "file" in text else "Component")
                # The kit's columns are required; a package built without
                # validation can still hold an empty value.
                header, rows = package.tables["EventManifest"]
                package.tables["EventManifest"] = ([header[0], "s72\tS72\tS255", header[2]], rows)
                log = self.run_expecting(1603, package, "/i", log=f"{package.name}.log")
                # Both immediate actions read the table; the unregistering one runs first.
                self.assertIn(f"{text} Error 0x80004005.", library_lines(log, "UninstallEventManifest"))
        self.assertEqual(self.calls(), [])


if __name__ == "__main__":
    unittest.main()
