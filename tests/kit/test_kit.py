"""The author's kit: its generated forms agree with their source and with the
reference pages, tools/add-setup-utils merges without touching the author's
rows, and tools/lint-package names each planted mistake."""

import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

import kit as kitlib

ROOT = Path(__file__).resolve().parents[2]
ADD = ROOT / "tools" / "add-setup-utils"
LINT = ROOT / "tools" / "lint-package"
DLL = ROOT / "build" / "windows-x64" / "utils.dll"
BASE = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="KitTest" Language="1033" Version="1.0.0" Manufacturer="Me"
           UpgradeCode="{11111111-2222-3333-4444-555555555555}">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
    <Media Id="1" Cabinet="data.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFiles64Folder">
      <Directory Id="INSTALLDIR" Name="KitTest">
        <Component Id="Main" Guid="{21111111-2222-3333-4444-555555555555}" Win64="yes">
          <File Id="readme" Name="readme.txt" Source="readme.txt" KeyPath="yes"/></Component>
      </Directory></Directory></Directory>
    <Feature Id="Complete" Level="1"><ComponentRef Id="Main"/></Feature>
    <CustomAction Id="AuthorsOwn" Property="X" Value="1"/>
    <InstallExecuteSequence><Custom Action="AuthorsOwn" After="CostFinalize"/></InstallExecuteSequence>
  </Product>
</Wix>
"""


def export(msi, table):
    return kitlib.msiinfo_export(msi, table).stdout


class Kit(unittest.TestCase):
    def setUp(self):
        self.work = Path(tempfile.mkdtemp(prefix="kit-"))
        (self.work / "readme.txt").write_text("r")
        (self.work / "base.wxs").write_text(BASE)
        self.msi = self.work / "p.msi"
        subprocess.run(["wixl", "-a", "x64", "-o", str(self.msi), "base.wxs"], cwd=self.work, check=True,
                       capture_output=True)

    def tearDown(self):
        shutil.rmtree(self.work, ignore_errors=True)

    def add(self, *args):
        return subprocess.run([str(ADD), str(self.msi), "--dll", str(DLL), *args], capture_output=True, text=True)

    def lint(self):
        result = subprocess.run([str(LINT), str(self.msi)], capture_output=True, text=True)
        return result.returncode, result.stdout

    def sql(self, *queries):
        args = ["msibuild", str(self.msi)]
        for q in queries:
            args += ["-q", q]
        subprocess.run(args, check=True, capture_output=True)

    def test_generated_forms_agree_with_the_source_and_the_reference_pages(self):
        self.assertEqual(subprocess.run([str(ROOT / "tools" / "kit.py"), "check"]).returncode, 0)
        kit = kitlib.load()
        for name, table in kit["tables"].items():
            page = (ROOT / "docs" / f"{table.get('doc', name)}.md").read_text()
            for column in table["columns"]:
                self.assertTrue(re.search(rf"\| `{re.escape(column['name'])}` \|", page), f"{name}.{column['name']}")
        pages = "".join(p.read_text() for p in (ROOT / "docs").glob("*.md"))
        for action in kit["actions"]:
            self.assertRegex(pages, rf"\| `{action['name']}` \| {action['type']}\b", action["name"])

    def test_merging_keeps_the_authors_rows_and_a_second_run_changes_nothing(self):
        rows = self.work / "rows.tsv"
        rows.write_text("[TextFile]\nTextFile\tFile\tText\tComponent_\nMine\t[INSTALLDIR]a.ini\tit's [X]\tMain\n")
        self.assertEqual(self.add("--rows", str(rows), "--actions", "GetWellKnownSids").returncode, 0)
        tables = ["CustomAction", "InstallExecuteSequence", "InstallUISequence", "Binary", "Error", "_Validation",
                  "TextFile"]
        first = {t: export(self.msi, t) for t in tables}
        self.assertIn("AuthorsOwn", first["CustomAction"])
        self.assertIn("AuthorsOwn", first["InstallExecuteSequence"])
        self.assertIn("CostFinalize", first["InstallExecuteSequence"])  # the standard actions stay
        self.assertIn("InstallTextFilesDeferred\t11265", first["CustomAction"])
        self.assertNotIn("InstallEventManifest", first["CustomAction"])
        self.assertIn("27454\t", first["Error"])
        self.assertIn("Mine\t[INSTALLDIR]a.ini\tit's [X]\tMain", first["TextFile"])
        self.assertEqual(self.add("--rows", str(rows), "--actions", "GetWellKnownSids").returncode, 0)
        self.assertEqual({t: export(self.msi, t) for t in tables}, first)
        self.assertEqual(self.lint(), (0, "lint-package: no problems found\n"))
        self.assertNotEqual(self.add("--tables", "NoSuchTable").returncode, 0)

    def test_lint_names_each_planted_mistake(self):
        rows = self.work / "rows.tsv"
        rows.write_text("\n".join([
            "[TextFile]", "TextFile\tFile\tText\tComponent_\tCondition",
            "Typo\t[INSTALLDIR]a.ini\tx\tMian", "BadCondition\t[INSTALLDIR]a.ini\tx\tMain\tVersionNT >= AND 600",
            "GoodCondition\t[INSTALLDIR]a.ini\tx\tMain\tNOT Installed AND (VersionNT64 ~>= 600 OR ?Main=3) AND "
            "PROP<>\"a b\"",
            "[EventManifest]", "EventManifest\tComponent_\tFile", "M1\tMain\t[#nofile]",
            "[RegistryEx]", "RegistryEx\tRoot\tKey\tName\tComponent_\tAttributes\tValue",
            "Bit4\t2\tSoftware\\A\tn\tMain\t4", "Root7\t7\tSoftware\\A\tn\tMain\t0",
            "BareNul\t2\tSoftware\\A\tm\tMain\t0\ta[~]b",
            "[XmlFile]", "XmlFile\tFile\tXPath\tAction\tComponent_\tNamespaces", "Act9\t[INSTALLDIR]a.xml\t//add[@k='v']\t9\tMain",
            "Prefix\t[INSTALLDIR]a.xml\t/p:a/b[@k='x:y']\t0\tMain\tq=urn:q", "Pairs\t[INSTALLDIR]a.xml\t/a\t0\tMain\tq",
            "[RemoveFileEx]", "RemoveFileEx\tComponent_\tPath\tPhase", "Ph9\tMain\t[INSTALLDIR]x\t9",
            "[MoveFileEx]", "MoveFileEx\tComponent_\tSource\tDestination\tAttributes",
            "NoPhase\tMain\t[INSTALLDIR]a\t[INSTALLDIR]b\t1",
            "[PermissionEx]", "PermissionEx\tComponent_\tObjectType\tObject\tSddl",
            "Perm\tMain\t0\t[INSTALLDIR]a\tD:(A;;FA;;;BU)(D;OI;GA;;;DU)(A;;FR;;;[ACCOUNT_USERS])(A;;FR;;;QQ)",
            "[PerfmonEx]", "PerfmonEx\tComponent_\tName\tFile\tLibrary\tAttributes",
            "ManLib\tMain\tP\t[INSTALLDIR]c.man\tp.dll\t1",
            "[InstallExecuteSequence]", "Action\tSequence", "InstallTextFiles\t3000", "InstallXmlFiles\t6602",
            "UninstallXmlFiles\t3",
            "[CustomAction]", "Action\tType\tSource\tTarget",
            "InstallXmlFilesRollback\t2049\tSetupUtils\tInstallXmlFilesRollback"]) + "\n")
        result = self.add("--rows", str(rows))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.sql("DELETE FROM `CustomAction` WHERE `Action` = 'InstallEventManifestRollback'")
        code, out = self.lint()
        self.assertEqual(code, 1, out)
        for expected in [
            "TextFile row 'Typo' column Component_: 'Mian' names no component of the package",
            "TextFile row 'BadCondition' column Condition: the condition 'VersionNT >= AND 600' does not parse",
            "EventManifest row 'M1' column File: [#nofile] names no file of the package",
            "RegistryEx row 'Bit4' column Attributes: 4 holds bits the library does not know",
            "RegistryEx row 'Root7' column Root: 7 is outside 0..3",
            "XmlFile row 'Act9' column Action: 9 is outside 0..5",
            "XmlFile row 'Prefix' column XPath: '/p:a/b[@k='x:y']' does not parse: the prefix 'p' is not declared",
            "XmlFile row 'Pairs' column Namespaces: 'q': 'q' is not prefix=uri",
            "RegistryEx row 'BareNul' column Value: a bare [~] formats to a NUL",
            "RemoveFileEx row 'Ph9' column Phase: 9 is outside 0..4",
            "MoveFileEx row 'NoPhase' column Attributes: 1 has no phase bit",
            "InstallExecuteSequence row 'InstallTextFiles': sequenced at 3000, it must run after InstallFiles",
            "InstallExecuteSequence row 'InstallXmlFiles': sequenced at 6602, outside InstallInitialize",
            "InstallExecuteSequence row 'UninstallXmlFiles': sequenced at 3, outside InstallInitialize",
            "CustomAction row 'InstallXmlFilesRollback': type 2049, source SetupUtils, entry InstallXmlFilesRollback; "
            "the kit's are 11521",
            "CustomAction row 'InstallEventManifestRollback': missing",
            "PermissionEx row 'Perm' column Sddl: the alias DU names a domain account",
            "PerfmonEx row 'ManLib' column Attributes: a manifest (0x1) takes no Library",
            "PermissionEx row 'Perm' column Sddl: the alias QQ is unknown",
            "PermissionEx row 'Perm' column Sddl: the entry (D;OI;...) carries inheritance flags",
            "PermissionEx row 'Perm' column Sddl: the rights GA are generic",
            "PermissionEx row 'Perm' column Sddl: the entries are not in canonical order",
        ]:
            self.assertIn(expected, out)
        self.assertNotIn("GoodCondition", out)
        # It never calls "fine" what it could not read.
        for args in (["--help"], [str(self.work / "none.msi")], [str(rows)], []):
            result = subprocess.run([str(LINT), *args], capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stdout), (2, ""), args)

if __name__ == "__main__":
    unittest.main()
