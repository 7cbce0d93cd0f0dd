import unittest

from msipackage import InstallerCase, Package, library_lines, properties

ACCOUNTS = [("ACCOUNT_LOCALSYSTEM", 22), ("ACCOUNT_LOCALSERVICE", 23), ("ACCOUNT_NETWORKSERVICE", 24),
            ("ACCOUNT_CREATOROWNER", 3), ("ACCOUNT_ADMINISTRATORS", 26), ("ACCOUNT_USERS", 27),
            ("ACCOUNT_GUESTS", 28)]


class WellKnownSidsInstall(InstallerCase):
    def test_install_publishes_the_seven_account_names(self):
        package = Package("wellknownsids").add_component("Main", [("readme", "readme.txt", "hello")])
        log = self.run_expecting(0, package.use_kit("GetWellKnownSids"), "/i")
        lines = library_lines(log, "GetWellKnownSids")
        self.assertEqual(lines[0], "GetWellKnownSids initialized.")
        self.assertEqual(lines[-1], "GetWellKnownSids: finished. Return value 0.")
        sid_lines = [l for l in lines if l.startswith("Well known sid is")]
        self.assertEqual(len(sid_lines), 7, lines)
        props = properties(log)
        for (name, sid_type), line in zip(ACCOUNTS, sid_lines):
            value = props.get(name)
            self.assertTrue(value, name)
            self.assertNotIn("\\", value)  # the account alone, no domain
            self.assertFalse(value.startswith("S-1-"), value)  # a name, never a SID string
            self.assertEqual(line, f"Well known sid is '{value}' for type '{sid_type}'.")

        log = self.run_expecting(0, package, "/x", log="uninstall.log")


if __name__ == "__main__":
    unittest.main()
