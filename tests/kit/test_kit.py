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
        wxs = (ROOT / "packaging" / "wix" / "SetupUtils.wxs").read_text()
        for action in kit["actions"]:
            self.assertIn(f'<CustomAction Id="{action["name"]}"', wxs)

    def test_merging_keeps_the_authors_rows_and_a_second_run_changes_nothing(self):
        self.assertEqual(self.add("--tables", "TextFile", "--actions", "GetWellKnownSids").returncode, 0)
        self.sql("INSERT INTO `TextFile` (`TextFile`, `File`, `Text`, `Component_`) "
                 "VALUES ('Mine', '[INSTALLDIR]a.ini', 'x', 'Main')")
        tables = ["CustomAction", "InstallExecuteSequence", "InstallUISequence", "Binary", "Error", "_Validation",
                  "TextFile"]
        first = {t: export(self.msi, t) for t in tables}
        self.assertIn("AuthorsOwn", first["CustomAction"])
        self.assertIn("AuthorsOwn", first["InstallExecuteSequence"])
        self.assertIn("CostFinalize", first["InstallExecuteSequence"])  # the standard actions stay
        self.assertIn("InstallTextFilesDeferred\t11265", first["CustomAction"])
        self.assertNotIn("InstallEventManifest", first["CustomAction"])
        self.assertIn("27454\t", first["Error"])
        self.assertEqual(self.add("--tables", "TextFile", "--actions", "GetWellKnownSids").returncode, 0)
        self.assertEqual({t: export(self.msi, t) for t in tables}, first)
        self.assertEqual(self.lint(), (0, "lint-package: no problems found\n"))
        self.assertNotEqual(self.add("--tables", "NoSuchTable").returncode, 0)

    def test_lint_names_each_planted_mistake(self):
        self.assertEqual(self.add("--tables", "TextFile,EventManifest").returncode, 0)
        self.sql("INSERT INTO `TextFile` (`TextFile`, `File`, `Text`, `Component_`, `Condition`) "
                 "VALUES ('Typo', '[INSTALLDIR]a.ini', 'x', 'Mian', '')",
                 "INSERT INTO `TextFile` (`TextFile`, `File`, `Text`, `Component_`, `Condition`) "
                 "VALUES ('BadCondition', '[INSTALLDIR]a.ini', 'x', 'Main', 'VersionNT >= AND 600')",
                 "INSERT INTO `TextFile` (`TextFile`, `File`, `Text`, `Component_`, `Condition`) "
                 "VALUES ('GoodCondition', '[INSTALLDIR]a.ini', 'x', 'Main', "
                 "'NOT Installed AND (VersionNT64 ~>= 600 OR ?Main=3) AND PROP<>\"a b\"')",
                 "INSERT INTO `EventManifest` (`EventManifest`, `Component_`, `File`) VALUES ('M1', 'Main', '[#nofile]')",
                 "UPDATE `InstallExecuteSequence` SET `Sequence` = 3000 WHERE `Action` = 'InstallTextFiles'",
                 "DELETE FROM `CustomAction` WHERE `Action` = 'InstallEventManifestRollback'")
        code, out = self.lint()
        self.assertEqual(code, 1, out)
        for expected in [
            "TextFile row 'Typo' column Component_: 'Mian' names no component of the package",
            "TextFile row 'BadCondition' column Condition: the condition 'VersionNT >= AND 600' does not parse",
            "EventManifest row 'M1' column File: [#nofile] names no file of the package",
            "InstallExecuteSequence row 'InstallTextFiles': sequenced at 3000, it must run after InstallFiles",
            "CustomAction row 'InstallEventManifestRollback': missing",
        ]:
            self.assertIn(expected, out)
        self.assertNotIn("GoodCondition", out)


if __name__ == "__main__":
    unittest.main()
