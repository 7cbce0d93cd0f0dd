#!/usr/bin/env python3
"""The demo: a package that uses every table built so far (TextFile,
EventManifest, RegistryEx, MoveFileEx, RemoveFileEx, CabPackage, XmlFile), installed with Wine's msiexec in a fresh prefix under
build/demo, then uninstalled; prints what the library did and the log lines
that explain each decision."""
import os
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

from cabinet import cabinet_bytes  # noqa: E402
from machine_state import MachineState, differences, export_key  # noqa: E402
from msipackage import ARCH, BUILD, DLL, Package, Prefix, library_lines, properties  # noqa: E402


def show(title, lines):
    print(f"\n== {title}")
    for line in lines:
        print("   " + line)


TEXT_ROWS = [
    ("Header", "[INSTALLDIR]settings.ini", "", "Main", ""),
    ("Section", "[INSTALLDIR]settings.ini", "[\\[]demo[\\]]", "Main", ""),
    ("Product", "[INSTALLDIR]settings.ini", "product=[ProductName] [ProductVersion]", "Main", ""),
    ("Admins", "[INSTALLDIR]settings.ini", "admins=[ACCOUNT_ADMINISTRATORS]", "Main", ""),
    ("Skipped", "[INSTALLDIR]settings.ini", "never written", "Main", "NOT_SET_ANYWHERE"),
]
DEMO_KEY = "Software\\Setup Utils Demo"
REGISTRY_ROWS = [
    ("Version", "2", DEMO_KEY, "Version", "[ProductVersion]", "Main", "0", "", ""),
    ("Port", "2", DEMO_KEY, "Port", "#8080", "Main", "0", "", ""),
    ("Paths", "2", DEMO_KEY, "Paths", "C:\\a[\\[]~[\\]]C:\\b", "Main", "0", "", ""),
    ("FileName", "2", DEMO_KEY, "Name", "[ProductName]", "Main", "0", "", "[INSTALLDIR]settings.reg"),
    ("FileFlags", "2", DEMO_KEY, "Flags", "#x0102", "Main", "0", "", "[INSTALLDIR]settings.reg"),
]
# Copies the installed readme over an existing app.config: backed up first,
# restored by a failing install, the backup removed by a successful one.
MOVE_ROWS = [
    ("CopyReadme", "Main", "[INSTALLDIR]readme.txt", "[INSTALLDIR]app.config", str(0x1 | 0x200), ""),
]
# Removes an old cache folder: undoably, so the failing install puts it back.
REMOVE_ROWS = [
    ("OldCache", "Main", "[INSTALLDIR]cache", "0", str(0x1 | 0x8 | 0x10), ""),
]
# Extracts the help pages of a cabinet the package installs into help\,
# replacing the stale index.html (backed up; the failing install puts it
# back); uninstall removes exactly the extracted pages.
CAB_ROWS = [
    ("HelpPages", "[#help_cab]", "[INSTALLDIR]help", str(0x1 | 0x4), "Main", ""),
]
HELP_CAB = cabinet_bytes([("index.html", b"<h1>Setup Utils demo</h1>\n"), ("pages\\install.html", b"<p>Install</p>\n"),
                          ("pages\\images\\logo.txt", b"(a logo)\n")])
# Edits a service's configuration (a namespace, UTF-8 with CR LF): the port
# set, an element added; the failing install leaves it byte for byte, the
# uninstall puts the old port back and takes the element away.
XML_ROWS = [
    ("DemoPort", "[INSTALLDIR]service.config", "/s:service/s:endpoint", "0", "port", "8080",
     "s=urn:setup-utils-demo", "1", "0", "Main", ""),
    ("DemoLog", "[INSTALLDIR]service.config", "/s:service", "2", "s:log", "[ProductName]",
     "s=urn:setup-utils-demo", "2", "0", "Main", ""),
]
# Lets the machine's Users read the demo key, whatever the language calls
# them; the key's own entries stay, and uninstall takes back only this one.
PERMISSION_ROWS = [
    ("DemoKeyRead", "Main", "2", DEMO_KEY, "2", "D:(A;CI;KR;;;[ACCOUNT_USERS])", "", "0"),
]
# Registers a legacy counter set (Wine's loadperf.dll is a stub that reports
# success): the Performance values written, the exact call logged.
PERFMON_ROWS = [
    ("DemoCounters", "Main", "SetupUtilsDemo", "[#demo_counters]", "[INSTALLDIR]readme.txt", "", "2", ""),
]
DEMO_COUNTERS = "[info]\r\ndrivername=SetupUtilsDemo\r\n[languages]\r\n009=English\r\n"
SERVICE_CONFIG = ('<?xml version="1.0" encoding="utf-8"?>\r\n<s:service xmlns:s="urn:setup-utils-demo">\r\n'
                  '  <s:endpoint port="80" host="localhost"/>\r\n</s:service>\r\n').encode()
TEXT_ACTIONS = ("InstallTextFiles", "InstallTextFilesDeferred", "InstallTextFilesRollback", "InstallTextFilesCommit")
MANIFEST_ACTIONS = ("InstallEventManifest", "InstallEventManifestDeferred", "InstallEventManifestRollback",
                    "UninstallEventManifest", "UninstallEventManifestDeferred", "UninstallEventManifestRollback")
MANIFEST = """<?xml version="1.0" encoding="UTF-8"?>
<instrumentationManifest xmlns="http://schemas.microsoft.com/win/2004/08/events">
  <instrumentation>
    <events xmlns="http://schemas.microsoft.com/win/2004/08/events">
      <provider name="SetupUtils-Demo" guid="{6F4A1B52-3C1E-4D6B-9A57-2B0E5D8C7A10}" symbol="SETUP_UTILS_DEMO"
                resourceFileName="%ProgramFiles%\\Setup Utils Demo\\readme.txt"
                messageFileName="%ProgramFiles%\\Setup Utils Demo\\readme.txt"/>
    </events>
  </instrumentation>
</instrumentationManifest>
"""


def demo_package(name, fail=False):
    package = Package(name, directory="Setup Utils Demo")
    package.add_component("Main", [("readme", "readme.txt", "Setup Utils demo\n"), ("help_cab", "help.cab", HELP_CAB),
                                   ("demo_counters", "counters.ini", DEMO_COUNTERS)])
    package.add_component("Events", [("demo_events", "demo events.man", MANIFEST)])
    package.use_kit("GetWellKnownSids", "GetOsVersionInfo", *TEXT_ACTIONS, *MANIFEST_ACTIONS)
    package.add_table("TextFile", TEXT_ROWS)
    package.add_table("EventManifest", [("DemoEvents", "Events", "[#demo_events]")])
    package.add_table("RegistryEx", REGISTRY_ROWS)
    package.add_table("MoveFileEx", MOVE_ROWS)
    package.add_table("RemoveFileEx", REMOVE_ROWS)
    package.add_table("CabPackage", CAB_ROWS)
    package.add_table("XmlFile", XML_ROWS)
    package.add_table("PermissionEx", PERMISSION_ROWS)
    package.add_table("PerfmonEx", PERFMON_ROWS)
    if fail:
        package.fail_at(6550)
    return package


def registry_lines(prefix, key):
    text = export_key(prefix, key)
    return [re.sub(r",\s+", ",", line) for line in text.strip("\ufeff").strip().splitlines()[1:]] if text else ["(no key)"]


def show_file(path):
    data = path.read_bytes() if path.exists() else None
    if data is None:
        return ["(no file)"]
    text = data[2:].decode("utf-16-le") if data[:2] == b"\xff\xfe" else data.decode("utf-8", "replace")
    return [f"{len(data)} bytes, starts {data[:4].hex(' ')}"] + text.replace("\r\n", "\n").split("\n")


def main():
    prefix = Prefix()
    which = "shipped 32-bit DLL, under WOW64" if ARCH == "x86" else "64-bit DLL"
    print(f"Running the {which}: {DLL}")
    work = BUILD / f"demo-{ARCH}" / "work"
    work.mkdir(parents=True, exist_ok=True)
    install_dir = prefix.root / "drive_c" / "Program Files" / "Setup Utils Demo"
    settings = install_dir / "settings.ini"
    install_dir.mkdir(parents=True, exist_ok=True)
    settings.write_bytes("previous settings\r\n".encode("utf-16"))
    config = install_dir / "app.config"
    config.write_bytes(b"previous app.config\n")
    show("app.config before anything", show_file(config))
    cache = install_dir / "cache"
    for name in ("old.tmp", "sub/older.tmp"):
        (cache / name).parent.mkdir(parents=True, exist_ok=True)
        (cache / name).write_bytes(b"stale\n")
    (install_dir / "help").mkdir(exist_ok=True)
    (install_dir / "help" / "index.html").write_bytes(b"<h1>stale help</h1>\n")
    (install_dir / "help" / "notes.txt").write_bytes(b"the user's own notes\n")
    service = install_dir / "service.config"
    service.write_bytes(SERVICE_CONFIG)
    show("service.config before anything", show_file(service))
    show("cache folder before anything", sorted(str(p.relative_to(install_dir)) for p in cache.rglob("*")))

    show("settings.ini before anything", show_file(settings))
    native = "HKLM\\" + ("Software\\Wow6432Node\\Setup Utils Demo" if ARCH == "x86" else DEMO_KEY)
    prefix.wine("reg", "delete", native, "/f", "/reg:64")
    prefix.wine("reg", "add", native, "/v", "Port", "/t", "REG_SZ", "/d", "was here before", "/f", "/reg:64")
    show(f"{native} before anything", registry_lines(prefix, native))

    failing = demo_package("SetupUtilsDemoFailing", fail=True)
    msi = failing.build(work)
    state = MachineState(prefix, [install_dir], registry_keys=[native])
    before = state.capture()
    code, log = prefix.msiexec("/i", prefix.windows_path(msi), log=work / "failing.log")
    diff = differences(before, state.capture())
    print(f"\nInstall with a deliberately failing step: exit code {code} (log: {work / 'failing.log'})")
    show("InstallTextFilesDeferred logged", library_lines(log, "InstallTextFilesDeferred"))
    show("InstallTextFilesRollback logged", library_lines(log, "InstallTextFilesRollback"))
    show("InstallEventManifestRollback logged (the manifest is unregistered again)",
         library_lines(log, "InstallEventManifestRollback"))
    show("InstallRegistryDeferred and InstallRegistryRollback logged",
         library_lines(log, "InstallRegistryDeferred") + library_lines(log, "InstallRegistryRollback"))
    show("MoveFilesExDeferred and MoveFilesExRollback logged (backup, copy, restore)",
         library_lines(log, "MoveFilesExDeferred") + library_lines(log, "MoveFilesExRollback"))
    show("settings.ini after the rollback (the previous file, byte for byte)", show_file(settings))
    show("app.config after the rollback (the previous file, byte for byte)", show_file(config))
    show("RemoveFilesExFinalize and RemoveFilesExRollback logged (the cache renamed aside, then back)",
         library_lines(log, "RemoveFilesExFinalize") + library_lines(log, "RemoveFilesExRollback"))
    show("InstallCabsDeferred and InstallCabsRollback logged (extracted beside help\\, moved in, taken back)",
         library_lines(log, "InstallCabsDeferred") + library_lines(log, "InstallCabsRollback"))
    show("InstallXmlFilesDeferred and InstallXmlFilesRollback logged",
         library_lines(log, "InstallXmlFilesDeferred") + library_lines(log, "InstallXmlFilesRollback"))
    show("service.config after the rollback (byte for byte: " +
         ("identical" if service.read_bytes() == SERVICE_CONFIG else "DIFFERENT") + ")", show_file(service))
    show(f"{native} after the rollback (the value that was there, with its type)", registry_lines(prefix, native))
    show("The install folder, the registry key and the restart-time rename list after the rollback, against before",
         diff or ["identical: bytes, times, attributes, registry values, and the rename list"])

    package = demo_package("SetupUtilsDemo")
    msi = package.build(work)
    print(f"\nBuilt {msi}")
    code, log = prefix.msiexec("/i", prefix.windows_path(msi), log=work / "install.log")
    print(f"\nInstall: exit code {code} (verbose log: {work / 'install.log'})")
    show("GetWellKnownSids logged", library_lines(log, "GetWellKnownSids"))
    props = properties(log)
    show("Properties it set", [f"{name} = {props.get(name, '')}" for name in (
        "ACCOUNT_LOCALSYSTEM", "ACCOUNT_LOCALSERVICE", "ACCOUNT_NETWORKSERVICE", "ACCOUNT_CREATOROWNER",
        "ACCOUNT_ADMINISTRATORS", "ACCOUNT_USERS", "ACCOUNT_GUESTS")])
    show("GetOsVersionInfo logged (the true version; the installer's own VersionNT is "
         f"{props.get('VersionNT', '?')})", library_lines(log, "GetOsVersionInfo"))
    show("InstallTextFiles logged (why each row was taken or skipped)", library_lines(log, "InstallTextFiles"))
    show("InstallTextFilesDeferred logged", library_lines(log, "InstallTextFilesDeferred"))
    show("InstallTextFilesCommit logged", library_lines(log, "InstallTextFilesCommit"))
    show("settings.ini after install", show_file(settings))
    show("InstallEventManifest logged", library_lines(log, "InstallEventManifest"))
    show("InstallEventManifestDeferred logged (wevtutil run, its output, its exit code)",
         library_lines(log, "InstallEventManifestDeferred"))
    show("InstallRegFiles logged (why each row was taken, direct or into a file)",
         library_lines(log, "InstallRegFiles"))
    show("InstallRegistryDeferred logged", library_lines(log, "InstallRegistryDeferred"))
    show(f"{native} after install", registry_lines(prefix, native))
    show("settings.reg after install (for the registry editor)", show_file(install_dir / "settings.reg"))
    show("MoveFilesEx logged (why the row was taken, in which phase)", library_lines(log, "MoveFilesEx"))
    show("MoveFilesExDeferred and MoveFilesExFinalize logged (backup, copy, backup removed)",
         library_lines(log, "MoveFilesExDeferred") + library_lines(log, "MoveFilesExFinalize"))
    show("app.config after install (the readme's copy)", show_file(config))
    show("RemoveFilesEx and RemoveFilesExFinalize logged (the cache removed, its backup deleted on commit)",
         library_lines(log, "RemoveFilesEx") + library_lines(log, "RemoveFilesExFinalize"))
    show("InstallCabs, InstallCabsDeferred and InstallCabsCommit logged (the cabinet deleted on commit)",
         library_lines(log, "InstallCabs") + library_lines(log, "InstallCabsDeferred") +
         library_lines(log, "InstallCabsCommit"))
    show("InstallXmlFiles and InstallXmlFilesDeferred logged",
         library_lines(log, "InstallXmlFiles") + library_lines(log, "InstallXmlFilesDeferred"))
    show("service.config after install (its encoding and CR LF kept)", show_file(service))
    show("RegisterPerfmonEx and RegisterPerfmonExDeferred logged (the exact loadperf call)",
         library_lines(log, "RegisterPerfmonEx") + library_lines(log, "RegisterPerfmonExDeferred"))
    show("InstallPermissions and InstallPermissionsDeferred logged (the account's SID, the merged descriptor)",
         library_lines(log, "InstallPermissions") + library_lines(log, "InstallPermissionsDeferred"))
    show("help folder after install", sorted(str(p.relative_to(install_dir)) for p in (install_dir / "help").rglob("*")))
    show("Files in the install folder (no backups left)", sorted(p.name for p in install_dir.iterdir()))

    code, log = prefix.msiexec("/x", prefix.windows_path(msi), log=work / "uninstall.log")
    print(f"\nUninstall: exit code {code}")
    show("InstallTextFiles on uninstall", library_lines(log, "InstallTextFiles"))
    show("UninstallEventManifest and its deferred action on uninstall",
         library_lines(log, "UninstallEventManifest") + library_lines(log, "UninstallEventManifestDeferred"))
    show("settings.ini after uninstall (text files are left in place)", show_file(settings))
    show("UninstallRegistryDeferred logged", library_lines(log, "UninstallRegistryDeferred"))
    show(f"{native} after uninstall", registry_lines(prefix, native))
    show("UninstallCabs and InstallCabsDeferred on uninstall (exactly the extracted files go)",
         library_lines(log, "UninstallCabs") + library_lines(log, "InstallCabsDeferred"))
    show("UninstallXmlFiles and InstallXmlFilesDeferred on uninstall (the recorded old values put back)",
         library_lines(log, "UninstallXmlFiles") + library_lines(log, "InstallXmlFilesDeferred"))
    show("service.config after uninstall (byte for byte: " +
         ("as before the install" if service.read_bytes() == SERVICE_CONFIG else "DIFFERENT") + ")", show_file(service))
    show("help folder after uninstall (exactly the cabinet's files went: the user's notes stay)",
         sorted(str(p.relative_to(install_dir)) for p in (install_dir / "help").rglob("*")))
    return 0


if __name__ == "__main__":
    sys.exit(main())
