"""XmlFile through real msiexec and Wine's MSXML: every action kind, with
namespaces; a UTF-8 file with a byte-order mark and CR LF and a UTF-16 file
with LF keep their encoding and line ends; uninstall puts the old values back
and removes what was added; a secret value appears nowhere in the log; bad
input (malformed XML, a DTD, an XPath that does not parse, a fragment that is
not well formed, a file that is too large, a missing file) fails clearly or is
skipped as asked. The forced rollback is in test_fault_injection."""

import unittest

from machine_state import fresh_folder
from msipackage import InstallerCase, library_lines

SET, SET_ALL, CREATE, DELETE_ATTRIBUTE, DELETE, APPEND = range(6)
PERMANENT, ON_UNINSTALL, CREATE_FILE, SKIP_MISSING, SECRET, KEEP_TIME = 0x1, 0x2, 0x4, 0x8, 0x10, 0x20

WEB_CONFIG = ('<?xml version="1.0" encoding="utf-8"?>\r\n<configuration>\r\n  <appSettings>\r\n'
              '    <add key="port" value="80"/>\r\n    <add key="mode" value="old"/>\r\n'
              '    <add key="gone" value="x"/>\r\n    <add key="mode" value="old"/>\r\n  </appSettings>\r\n'
              '  <legacy enabled="true"/>\r\n</configuration>\r\n')
NS_XML = ('<?xml version="1.0" encoding="utf-16"?>\n<c:settings xmlns:c="urn:cfg" xmlns="urn:default">\n'
          '  <c:item name="a">1</c:item>\n  <plain>p</plain>\n</c:settings>\n')


def xml_rows(win):
    web, ns = f"{win}\\web.config", f"{win}\\ns.xml"
    return [
        ("Port", web, "/configuration/appSettings/add[@key='port']", SET, "value", "8080", "", 1, 0),
        ("Mode", web, "//add[@key='mode']", SET_ALL, "value", "new", "", 2, 0),
        ("Gone", web, "//add[@key='gone']", DELETE, "", "", "", 3, 0),
        ("Legacy", web, "/configuration/legacy", DELETE_ATTRIBUTE, "enabled", "", "", 4, 0),
        ("Note", web, "/configuration/appSettings", CREATE, "note", "added", "", 5, 0),
        ("Extra", web, "/configuration/appSettings", APPEND, "", '<add key="extra" value="1"/>', "", 6, 0),
        ("Item", ns, "/c:settings/c:item[@name='a']", SET, "", "2", "c=urn:cfg", 1, 0),
        ("Plain", ns, "/c:settings/d:plain", CREATE, "child", "in the default namespace", "c=urn:cfg d=urn:default",
         2, 0),
        ("Fresh", f"{win}\\new\\fresh.xml", "/root", CREATE, "child", "v", "", 1, CREATE_FILE),
        ("Keep", web, "/configuration/appSettings/add[@key='port']", SET, "kept", "yes", "", 7, PERMANENT),
        ("Farewell", f"{win}\\host.xml", "/host", CREATE, "uninstalled", "[ProductName]", "", 1, ON_UNINSTALL),
    ]


class XmlFiles(InstallerCase):
    def setUp(self):
        super().setUp()
        self.win = "C:\\xmlt\\" + self.name
        self.root = fresh_folder(self.prefix.host_path(self.win))

    def package(self, rows, name=None, **properties):
        return self.table_package("XmlFile", [(i, f, x, str(a), n, v, ns, str(s), str(atr), "Main", "")
                                              for i, f, x, a, n, v, ns, s, atr in rows], name=name, **properties)

    def test_every_action_keeps_encoding_and_uninstall_puts_values_back(self):
        web, ns = self.root / "web.config", self.root / "ns.xml"
        web.write_bytes(b"\xef\xbb\xbf" + WEB_CONFIG.encode())
        (self.root / "host.xml").write_text("<host/>")
        ns.write_bytes(b"\xff\xfe" + NS_XML.encode("utf-16-le"))
        before = {web: web.read_bytes(), ns: ns.read_bytes()}
        package = self.package(xml_rows(self.win))
        log = self.run_expecting(0, package, "/i", log="install.log")
        data = web.read_bytes()
        self.assertTrue(data.startswith(b"\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"), data[:80])
        self.assertNotIn(b"\n", data.replace(b"\r\n", b""))  # every line end stays CR LF
        text = data.decode("utf-8-sig")
        for part in ('<add key="port" value="8080" kept="yes"/>', '<add key="mode" value="new"/>', "<legacy/>",
                     "<note>added</note>", '<add key="extra" value="1"/>'):
            self.assertIn(part, text)
        self.assertEqual(text.count('value="new"'), 2)
        self.assertNotIn("gone", text)
        data = ns.read_bytes()
        self.assertTrue(data.startswith(b"\xff\xfe"))
        text = data[2:].decode("utf-16-le")
        self.assertNotIn("\r", text)
        self.assertIn('<c:item name="a">2</c:item>', text)
        # In the parent's namespace (Wine repeats the declaration; never xmlns="").
        self.assertRegex(text, r'<plain>p<child( xmlns="urn:default")?>in the default namespace</child></plain>')
        fresh = (self.root / "new" / "fresh.xml").read_bytes()
        self.assertTrue(fresh.startswith(b'<?xml version="1.0" encoding="utf-8"?>\r\n<root>'), fresh)
        self.assertIn(b"<child>v</child>", fresh)
        self.assertEqual((self.root / "host.xml").read_text(), "<host/>")  # its edit waits for the uninstall
        self.assertEqual(sorted(p.name for p in self.root.iterdir()), ["host.xml", "new", "ns.xml", "web.config"])

        # A repair makes the edits again and keeps the records of the values from before.
        code, log = self.prefix.msiexec("/i", self.prefix.windows_path(package.msi), "REINSTALL=ALL",
                                        "REINSTALLMODE=omus", log=self.work / "repair.log")
        self.assertEqual(code, 0, log[-4000:])
        self.assertIn("Need to edit xml file '" + self.win + "\\web.config' for 'Port'. Component to do 3.",
                      library_lines(log, "InstallXmlFiles"))
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        # Everything but the permanent edit is back, byte for byte.
        self.assertEqual(ns.read_bytes(), before[ns])
        self.assertEqual(web.read_bytes(), before[web].replace(b'value="80"/>', b'value="80" kept="yes"/>'))
        self.assertFalse((self.root / "new" / "fresh.xml").exists())  # made for the edit, gone with it
        self.assertIn(f"<uninstalled>{package.name}</uninstalled>", (self.root / "host.xml").read_text())
        self.assertIn("Skip xml edit 'Keep', '" + self.win + "\\web.config'. It is permanent (0x1): uninstall "
                      "leaves it.", library_lines(log, "UninstallXmlFiles"))

    def test_a_secret_stays_out_of_the_log_and_missing_files_are_skipped(self):
        (self.root / "db.config").write_text('<db password="old-one" user="u"/>')
        rows = [("Password", f"{self.win}\\db.config", "/db", SET, "password", "[DB_PASSWORD]", "", 1, SECRET),
                ("Optional", f"{self.win}\\none.config", "/x", SET, "a", "b", "", 1, SKIP_MISSING),
                ("NoMatch", f"{self.win}\\db.config", "/db/nothing", SET, "a", "b", "", 2, SKIP_MISSING),
                ("User", f"{self.win}\\db.config", "/db", SET, "user", "v", "", 3, 0)]
        package = self.package(rows, DB_PASSWORD="S3cr3t-Value!", MsiHiddenProperties="DB_PASSWORD")
        log = self.run_expecting(0, package, "/i", log="install.log")
        self.assertEqual((self.root / "db.config").read_text(), '<db password="S3cr3t-Value!" user="v"/>')
        # Nowhere but in the property list Wine's msiexec prints at the end:
        # it ignores MsiHiddenProperties, where Windows leaves out the author's
        # property and the data of the actions, which the library adds.
        self.assertEqual([line for line in log.splitlines() if "S3cr3t-Value!" in line and
                          not line.startswith(("Property(S): DB_PASSWORD = ", "Property(S): InstallXmlFiles",
                                               "Property(S): CustomActionData = "))], [])
        self.assertIn("Property(S): MsiHiddenProperties = DB_PASSWORD;InstallXmlFilesRollback;InstallXmlFilesDeferred;"
                      "InstallXmlFilesCommit", log)
        deferred = library_lines(log, "InstallXmlFilesDeferred")
        self.assertIn(f"Set attribute 'password' of 1 node(s) matching '/db' in '{self.win}\\db.config' to '***'.",
                      deferred)
        self.assertIn(f"Skip the xml file '{self.win}\\none.config': it does not exist.", deferred)
        self.assertIn(f"Skip xml edit 'NoMatch': '/db/nothing' matches nothing in '{self.win}\\db.config' (0x8).",
                      deferred)
        # A file that is gone by uninstall is a skip, never a failed uninstall;
        # one whose edits recorded nothing is not even looked at.
        (self.root / "db.config").unlink()
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        deferred = library_lines(log, "InstallXmlFilesDeferred")
        self.assertIn(f"Skip the xml file '{self.win}\\db.config': it does not exist.", deferred)
        self.assertIn(f"Nothing to take back in '{self.win}\\none.config': no edit of it was recorded.", deferred)

    def test_repairs_take_backs_and_single_byte_encodings_keep_to_the_files(self):
        cp, latin = self.root / "cp.xml", self.root / "latin.xml"
        cp.write_bytes(b'<?xml version="1.0" encoding="windows-1252"?>\r\n<c city="caf\xe9" price="\x80"><a/><b/></c>\r\n')
        latin.write_bytes(b"<?xml version='1.0' encoding='ISO-8859-1'?><c/>")
        self.prefix.env["XML_CITY"] = "Z\u00fcrich \u20ac"  # a value the Latin-1 file can hold only in part
        self.addCleanup(self.prefix.env.pop, "XML_CITY", None)
        rows = [("Made", f"{self.win}\\cp.xml", "/c", CREATE, "made", "m", "", 1, 0),
                ("City", f"{self.win}\\latin.xml", "/c", SET, "city", "[%XML_CITY]", "", 1, 0),
                ("Note", f"{self.win}\\latin.xml", "/c", CREATE, "note", "kept", "", 2, PERMANENT),
                ("Frag", f"{self.win}\\latin.xml", "/c", APPEND, "", '<p n="1"/>', "", 3, PERMANENT)]
        package = self.package(rows)
        self.run_expecting(0, package, "/i", log="install.log")
        # The encodings stay, and what Latin-1 lacks is a character reference.
        self.assertTrue(cp.read_bytes().startswith(b'<?xml version="1.0" encoding="windows-1252"?>\r\n'
                                                   b'<c city="caf\xe9" price="\x80">'), cp.read_bytes())
        self.assertIn(b"<made>m</made>", cp.read_bytes())
        self.assertIn(b'city="Z\xfcrich &#x20ac;"', latin.read_bytes())
        # A repair makes the permanent elements once, as the install did.
        self.run_expecting(0, package, "/i", "REINSTALL=ALL", "REINSTALLMODE=vomus", log="repair.log")
        self.assertEqual((latin.read_bytes().count(b"<note>"), latin.read_bytes().count(b"<p ")), (1, 1))
        # A user removes an earlier sibling and adds an element of their own
        # where the made one stood: uninstall leaves theirs.
        cp.write_bytes(cp.read_bytes().replace(b"<a/>", b"").replace(b"</made>", b"</made><mine/>"))
        log = self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertIn(b"<mine/>", cp.read_bytes())
        self.assertTrue(any("is now 'mine', not 'made'" in line for line in library_lines(log, "InstallXmlFilesDeferred")))
        # A file whose encoding the library cannot keep is refused before any backup.
        sjis = self.root / "sjis.xml"
        sjis.write_bytes(b"<?xml version='1.0' encoding='Shift_JIS'?><c/>")
        before = sorted(p.name for p in self.root.iterdir())
        log = self.run_expecting(1603, self.package([("S", f"{self.win}\\sjis.xml", "/c", SET, "a", "b", "", 1, 0)]),
                                 "/i", log="sjis.log")
        self.assertIn(f"Refused to edit '{self.win}\\sjis.xml': The XML file declares the encoding 'shift_jis', which "
                      "the library cannot keep. Error 0x80070057.", library_lines(log, "InstallXmlFilesDeferred"))
        self.assertEqual(sorted(p.name for p in self.root.iterdir()), before)

    def test_edits_of_many_siblings_are_taken_back_exactly(self):
        # Edits matching many nodes at once find their positions in one walk
        # of each parent; the siblings around them (other elements, comments,
        # indentation) must not shift what uninstall takes back. (A deleted
        # element comes back right after the element before it: a comment
        # between the two would then follow it, so none stands there.)
        def section(s):
            items = "".join(f'\n    <add k="{s}.{i}" group="{"abc"[i % 3]}" drop="{i}"/>'
                            + ("<other/>" if i % 4 == 0 else "") for i in range(12))
            return f'\n  <section n="{s}"><!-- {s} -->{items}\n  </section><skip/>'
        many = self.root / "many.xml"
        # And one long list, where single edits count earlier siblings by XPath.
        xs = "".join(f'\n  <x n="{i}"/>' + ("<!-- c -->" if i % 10 == 0 else "") for i in range(90))
        many.write_bytes(("<?xml version=\"1.0\"?>\n<root>" + "".join(section(s) for s in range(9)) + xs
                          + "\n</root>\n").encode())
        before = many.read_bytes()
        win = f"{self.win}\\many.xml"
        rows = [("SetA", win, "//add[@group='a']", SET_ALL, "v", "new", "", 1, 0),
                ("DropB", win, "//add[@group='b']", DELETE_ATTRIBUTE, "drop", "", "", 2, 0),
                ("GoneC", win, "//add[@group='c']", DELETE, "", "", "", 3, 0),
                ("Made", win, "//section", CREATE, "made", "m", "", 5, 0),
                ("Frag", win, "//section", APPEND, "", '<f/><g x="1"/>', "", 6, 0),
                ("Late", win, "//x[@n='85']", SET, "v", "late", "", 7, 0),
                ("LateGone", win, "//x[@n='80']", DELETE, "", "", "", 8, 0)]
        package = self.package(rows)
        self.run_expecting(0, package, "/i", log="install.log")
        text = many.read_text()
        self.assertEqual((text.count('v="new"'), text.count('group="c"'), text.count("<made>m</made>"),
                          text.count('<g x="1"/>')), (36, 0, 9, 9))
        self.assertEqual(text.count('group="b" drop='), 0)
        self.assertIn('<x n="85" v="late"/>', text)
        self.assertNotIn('<x n="80"', text)
        self.assertNotIn("setup-utils", text)  # the marks that find positions leave nothing behind
        self.run_expecting(0, package, "/x", log="uninstall.log")
        self.assertEqual(many.read_bytes(), before)

    def test_bad_input_fails_clearly_and_changes_nothing(self):
        good = '<?xml version="1.0"?>\n<a><b/></a>\n'
        cases = [
            ("Malformed", "<a><b></a>", "/a", SET, "x", "1", "it is not well-formed XML"),
            ("Dtd", '<?xml version="1.0"?>\n<!DOCTYPE a [<!ENTITY e "x">]>\n<a>&e;</a>', "/a", SET, "x", "1",
             "it declares a document type (DTD)"),
            # Refused by the immediate action, before any backup.
            ("XPath", good, "/a/b[@", SET, "x", "1", "does not parse"),
            ("Prefix", good, "/p:a", SET, "x", "1", "does not parse"),
            ("Fragment", good, "/a", APPEND, "", "<c>", "The fragment is not well formed"),
            ("Large", "<a>" + "x" * (9 * 1024 * 1024) + "</a>", "/a", SET, "x", "1", "an XML edit reads"),
            ("Missing", None, "/a", SET, "x", "1", "does not exist"),
        ]
        for name, content, xpath, action, attribute, value, why in cases:
            with self.subTest(case=name):
                path = self.root / f"{name}.xml"
                if content is not None:
                    path.write_text(content)
                before = path.read_bytes() if content is not None else None
                package = self.package([(name, f"{self.win}\\{name}.xml", xpath, action, attribute, value, "", 1, 0)],
                                       name=f"{self.name[:30]}{name}")
                log = self.run_expecting(1603, package, "/i", log=f"{name}.log")
                action = "InstallXmlFiles" if name in ("XPath", "Prefix") else "InstallXmlFilesDeferred"
                self.assertTrue(any(why in line for line in library_lines(log, action)),
                                "\n".join(library_lines(log, action)))
                self.assertEqual(path.read_bytes() if path.exists() else None, before)
                self.assertEqual(sorted(p.name for p in self.root.iterdir() if not p.name.endswith(".xml")), [])


if __name__ == "__main__":
    unittest.main()
