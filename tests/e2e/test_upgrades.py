"""Major upgrades: the old product's records (XML edits, cabinets) pass to
the new one, whose uninstall then restores the start. Kept GUIDs: a real late
RemoveExistingProducts; changed GUIDs: the removal by hand with the
UPGRADINGPRODUCTCODE that Windows (not Wine) passes."""

import re
import unittest

from cabinet import cabinet_bytes
from machine_state import fresh_folder
from msipackage import InstallerCase, library_lines

XML_RECORDS = "HKLM\\Software\\Setup Utils\\XmlFile"
CAB_RECORDS = "HKLM\\Software\\Setup Utils\\CabPackage"
ORIGINAL = b'<?xml version="1.0"?>\r\n<c value="original"/>\r\n'
CABINET = cabinet_bytes([("a.txt", b"alpha"), ("sub\\b.txt", b"beta")])


def without_blanks(xml):
    return re.sub(rb"<(\w+)([^>]*)></\1>", rb"<\1\2/>", re.sub(rb">\s+<", b"><", xml))


class MajorUpgrades(InstallerCase):
    def setUp(self):
        super().setUp()
        self.win = "C:\\upgrade\\" + self.name
        self.root = fresh_folder(self.prefix.host_path(self.win))
        (self.root / "app.xml").write_bytes(ORIGINAL)
        for key in (XML_RECORDS, CAB_RECORDS):  # records of earlier runs would hold the same files
            self.prefix.wine("reg", "delete", key, "/f")

    def versions(self, **upgrade):
        old = self.table_package("XmlFile", [
            ("Value", f"{self.win}\\app.xml", "/c", "0", "value", "[ProductVersion]", "", "1", "0", "Main", ""),
            ("Made", f"{self.win}\\app.xml", "/c", "2", "made", "[ProductVersion]", "", "2", "0", "Main", "")],
            files=[("cab0", "payload.cab", CABINET)])
        old.add_table("CabPackage", [("Data", "[INSTALLDIR]payload.cab", f"{self.win}\\data", "0", "Main", "")])
        return old, old.major_upgrade(self.name + "New", **upgrade)

    def records(self, product):
        return [self.prefix.reg_query(f"{key}\\{product}") for key in (XML_RECORDS, CAB_RECORDS)]

    def assert_back_to_the_start(self, new):
        self.run_expecting(0, new, "/x", log="uninstall-new.log")
        # Both versions' elements are taken back; the blank lines that the
        # second one's creation left between them may stay.
        self.assertEqual(without_blanks((self.root / "app.xml").read_bytes()), without_blanks(ORIGINAL))
        self.assertFalse((self.root / "data").exists())
        self.assertEqual(self.records(new.product_code), [None, None])

    def test_kept_components_hand_their_records_to_the_new_product(self):
        old, new = self.versions()
        self.run_expecting(0, old, "/i", log="install-old.log")
        self.run_expecting(0, new, "/i", log="upgrade.log")
        self.assertEqual(self.records(old.product_code), [None, None])
        xml, cab = self.records(new.product_code)
        self.assertEqual(xml.count("k>remove"), 2)  # both versions' elements, each taken back
        self.assertIn('<c value="2.0.0">', (self.root / "app.xml").read_text())
        self.assert_back_to_the_start(new)

    def new_guids_installed(self, fail=False):
        old, new = self.versions(remove_at=None)
        new.component_guids = {}
        if fail:
            old.fail_at(3497, "FAILNOW")  # after the handovers, before RemoveFiles
        self.run_expecting(0, old, "/i", log="install-old.log")
        self.run_expecting(0, new, "/i", log="install-new.log")
        return old, new, f"UPGRADINGPRODUCTCODE={new.product_code}"

    def test_an_upgrade_with_new_guids_leaves_the_new_edits(self):
        old, new, upgrading = self.new_guids_installed()
        edited = (self.root / "app.xml").read_bytes()
        log = self.run_expecting(0, old, "/x", upgrading, log="removal.log")
        self.assertEqual((self.root / "app.xml").read_bytes(), edited)
        self.assertIn(f"Hand the record of xml edit 'Made' over to product '{new.product_code}': that product upgrades "
                      "this one (UPGRADINGPRODUCTCODE) and recorded the same row.",
                      library_lines(log, "UninstallXmlFiles"))
        self.assertEqual(self.records(old.product_code), [None, None])
        self.assert_back_to_the_start(new)

    def test_a_failed_removal_leaves_both_records_as_they_were(self):
        old, new, upgrading = self.new_guids_installed(fail=True)
        edited = (self.root / "app.xml").read_bytes()
        before = self.records(old.product_code) + self.records(new.product_code)
        log = self.run_expecting(1603, old, "/x", upgrading, "FAILNOW=1", log="removal-rolled-back.log")
        # The end user's dialog says why, and gives the code in hex.
        self.assertIn("Setup Utils could not write the text files or registry values of this product: Failed to "
                      "write file 'C:\\no\\such\\dir\\f.txt'. (HRESULT 0x80070003)", log)
        self.assertEqual(self.records(old.product_code) + self.records(new.product_code), before)
        self.assertEqual((self.root / "app.xml").read_bytes(), edited)

if __name__ == "__main__":
    unittest.main()
