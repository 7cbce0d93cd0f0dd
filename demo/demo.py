#!/usr/bin/env python3
"""The demo: a package that uses every table built so far, installed with
Wine's msiexec in a fresh prefix under build/demo, then uninstalled; prints
what the library did and the log lines that explain each decision."""
import os
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from msitest import BUILD, Package, Prefix, library_lines, properties  # noqa: E402


def show(title, lines):
    print(f"\n== {title}")
    for line in lines:
        print("   " + line)


def main():
    prefix = Prefix()
    work = BUILD / "demo" / "work"
    work.mkdir(parents=True, exist_ok=True)

    package = Package("SetupUtilsDemo", directory="Setup Utils Demo")
    package.add_component("Main", [("readme", "readme.txt", "Setup Utils demo\n")])
    package.use_kit("GetWellKnownSids")
    msi = package.build(work)
    print(f"Built {msi}")

    code, log = prefix.msiexec("/i", prefix.windows_path(msi), log=work / "install.log")
    print(f"\nInstall: exit code {code} (verbose log: {work / 'install.log'})")
    show("GetWellKnownSids logged", library_lines(log, "GetWellKnownSids"))
    props = properties(log)
    show("Properties it set", [f"{name} = {props.get(name, '')}" for name in (
        "ACCOUNT_LOCALSYSTEM", "ACCOUNT_LOCALSERVICE", "ACCOUNT_NETWORKSERVICE", "ACCOUNT_CREATOROWNER",
        "ACCOUNT_ADMINISTRATORS", "ACCOUNT_USERS", "ACCOUNT_GUESTS")])

    code, log = prefix.msiexec("/x", prefix.windows_path(msi), log=work / "uninstall.log")
    print(f"\nUninstall: exit code {code}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
