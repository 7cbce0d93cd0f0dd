#!/usr/bin/env python3
"""Time of the author's tools on a package with many rows: tools/add-setup-utils
merging N TextFile rows from a rows file, and tools/lint-package checking them
(every row's component, condition and references).

  bench/lint_cost.py [--rows 1000,10000]
"""

import argparse
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
WXS = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="LintCost" Language="1033" Version="1.0.0" Manufacturer="Me"
           UpgradeCode="{11111111-2222-3333-4444-555555555556}">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
    <Media Id="1" Cabinet="data.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFiles64Folder">
      <Directory Id="INSTALLDIR" Name="LintCost">
        <Component Id="Main" Guid="{21111111-2222-3333-4444-555555555556}" Win64="yes">
          <File Id="readme" Name="readme.txt" Source="readme.txt" KeyPath="yes"/></Component>
      </Directory></Directory></Directory>
    <Feature Id="Complete" Level="1"><ComponentRef Id="Main"/></Feature>
  </Product>
</Wix>
"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rows", default="1000,10000")
    args = parser.parse_args()
    dll = ROOT / "build" / "windows-x64" / "utils.dll"
    for n in (int(x) for x in args.rows.split(",")):
        work = Path(tempfile.mkdtemp(prefix="lint-cost-"))
        try:
            (work / "readme.txt").write_text("r")
            (work / "p.wxs").write_text(WXS)
            subprocess.run(["wixl", "-a", "x64", "-o", "p.msi", "p.wxs"], cwd=work, check=True, capture_output=True)
            (work / "rows.tsv").write_text("[TextFile]\nTextFile\tFile\tText\tComponent_\tCondition\n" + "".join(
                f"T{i}\t[INSTALLDIR]f{i % 100}.ini\tk{i}=[ProductName] [#readme]\tMain\tNOT Installed\n"
                for i in range(n)))
            started = time.monotonic()
            subprocess.run([str(ROOT / "tools" / "add-setup-utils"), str(work / "p.msi"), "--dll", str(dll),
                            "--rows", str(work / "rows.tsv")], check=True)
            merged = time.monotonic() - started
            started = time.monotonic()
            lint = subprocess.run([str(ROOT / "tools" / "lint-package"), str(work / "p.msi")], capture_output=True,
                                  text=True)
            linted = time.monotonic() - started
            print(f"{n:>7} rows: add-setup-utils --rows {merged:6.2f} s, lint-package {linted:6.2f} s "
                  f"(exit {lint.returncode}: {lint.stdout.strip()[:60]})", flush=True)
        finally:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
