#!/usr/bin/env python3
"""Row cost against the installer's own standard actions, through real msiexec.

For N rows (1,000 and 10,000) three packages are built from the same base: a
baseline with no rows, one with N rows of the library's table and one with N
rows of the installer's own table doing the same work. Families:
  text      TextFile rows against IniFile rows (WriteIniValues), over 100 files;
  registry  direct RegistryEx rows against Registry rows (WriteRegistryValues),
            over 100 keys;
  move      deferred MoveFileEx copies of an installed file against
            DuplicateFile rows (DuplicateFiles) making the same copies, a
            hundred to a folder (as the remove and cab families' files).
Rounds interleave the three; every run gets a fresh copy of the template
prefix with its server warm, and a verbose log. Printed per row: the excess
over the baseline in wall time and CPU (msiexec and its processes, and the
prefix's wineserver), for install and uninstall, min/median/max over the
rounds, and the ratio TextFile/IniFile of the medians. The installer calls
the library made per row are counted from a run with the verbose-level
statistics line ("Installer calls: N.").

  xml       XmlFile rows setting an attribute of one element each, over 100
            files, against IniFile rows;
  cab       CabPackage rows extracting one small cabinet into a folder each,
            against DuplicateFile rows copying the same bytes;
  qword     RegistryQword rows over Registry rows, against the Registry rows alone;
  integer   Registry rows whose value is #[PROPERTY] (a hundred properties, one of them
            written " 0x0", so set again) with FixRegistryIntegerProperties, over the
            Registry rows with plain numbers;
  manifest  EventManifest rows (the recording wevtutil double runs once a row), on their own.
Families whose "rows" are the size of one item, on their own:
  xmlnodes  one XML file of N elements and 1,000 rows each setting one of them;
  xmlevery  one row setting an attribute of all N elements of one file;
  cabentries one CabPackage row extracting a cabinet of N entries (at most 65,535), a
            hundred to a folder.

The library's own time comes from a verbose run: each action logs
"Time: T ms; installer calls N in I ms; registry calls M in R ms; own O ms."
and the bench prints O (and I) per row for every action of the family. With
more than one size, the ratio of the per-row figures of the largest size to
the one before closes the output (1.00 is linear).

  bench/row_cost.py [--family F] [--rows 1000,10000,100000] [--rounds 3]
(UTILS_MSIEXEC_TIMEOUT raises the 180 s a run may take, for 100,000 rows.)
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

from cabinet import cabinet_bytes  # noqa: E402
from machine_state import WevtutilDouble  # noqa: E402
from msipackage import BUILD, Package, Prefix, library_lines  # noqa: E402

CABINET = cabinet_bytes([("payload.txt", b"the same bytes")])

FILES = 100
PER_FOLDER = 100  # files of the move, remove and cab families in one folder (see folder_of)
EDITS = 1000  # the rows of the xmlnodes family
TEMPLATE = Path(os.environ.get("UTILS_WINE_TEMPLATE", BUILD / "wine" / "template"))
PREFIX = BUILD / "bench" / "prefix"
TEXT_ACTIONS = ("InstallTextFiles", "InstallTextFilesDeferred", "InstallTextFilesRollback", "InstallTextFilesCommit")
REGISTRY_HEADER = ["Registry\tRoot\tKey\tName\tValue\tComponent_", "s72\ti2\tl255\tL255\tL0\ts72",
                   "Registry\tRegistry"]
DUPLICATE_HEADER = ["DuplicateFile\tComponent_\tFile_\tDestName\tDestFolder", "s72\ts72\ts72\tL255\tS72",
                    "DuplicateFile\tDuplicateFile"]
REMOVE_HEADER = ["FileKey\tComponent_\tFileName\tDirProperty\tInstallMode", "s72\ts72\tL255\ts72\tI2",
                 "RemoveFile\tFileKey"]
INI_HEADER = ["IniFile\tFileName\tDirProperty\tSection\tKey\tValue\tAction\tComponent_",
              "s72\tl255\tS72\tl96\tl128\tl255\ti2\ts72", "IniFile\tIniFile"]


def package(family, kind, rows):
    name = f"RowCost{family}{kind}{rows}"
    files = [("readme", "readme.txt", "r")]
    if family == "cab":
        files.append(("payload", "payload.cab", CABINET))
    if family == "cabentries":
        # A tree of a hundred entries a folder: Wine looks up a name that does not
        # exist yet by reading its whole folder, so one flat folder of N new
        # files costs N^2 under Wine whoever creates them (see docs/design.md).
        files.append(("payload", "payload.cab", cabinet_bytes([(f"d{i // 100}\\f{i}.txt", b"entry %d" % i)
                                                              for i in range(rows)])))
    p = Package(name, directory="RowCost").add_component("Main", files)
    key = "Software\\SetupUtilsRowCost\\k{}"
    if (family, kind) == ("text", "ours"):
        p.use_kit(*TEXT_ACTIONS)
        p.add_table("TextFile", [(f"L{i}", f"[INSTALLDIR]file{i % FILES}.ini", f"key{i}=value {i} of [ProductName]",
                                  "Main", "") for i in range(rows)])
    elif (family, kind) == ("text", "theirs"):
        p.tables["IniFile"] = (INI_HEADER, [[f"I{i}", f"file{i % FILES}.ini", "INSTALLDIR", "settings", f"key{i}",
                                             f"value {i} of [ProductName]", "0", "Main"] for i in range(rows)])
        p.sequence += [["WriteIniValues", "", "5100"], ["RemoveIniValues", "", "3800"]]
    elif (family, kind) == ("registry", "ours"):
        p.add_table("RegistryEx", [(f"R{i}", "2", key.format(i % FILES), f"v{i}", f"value {i} of [ProductName]",
                                    "Main", "0", "", "") for i in range(rows)])
    elif (family, kind) == ("registry", "theirs"):
        p.tables["Registry"] = (REGISTRY_HEADER, [[f"R{i}", "2", key.format(i % FILES), f"v{i}",
                                                   f"value {i} of [ProductName]", "Main"] for i in range(rows)])
        p.sequence += [["WriteRegistryValues", "", "5000"], ["RemoveRegistryValues", "", "2600"]]
    elif (family, kind) == ("move", "ours"):
        p.add_table("MoveFileEx", [(f"M{i}", "Main", "[INSTALLDIR]readme.txt", f"[INSTALLDIR]{folder_of(i)}\\copy{i}.txt",
                                    str(0x201), "") for i in range(rows)])
    elif (family, kind) == ("move", "theirs"):
        folder_properties(p, rows)
        p.tables["DuplicateFile"] = (DUPLICATE_HEADER, [[f"D{i}", "Main", "readme", f"copy{i}.txt", folder_of(i).upper()]
                                                        for i in range(rows)])
        p.sequence += [["DuplicateFiles", "", "4210"], ["RemoveDuplicateFiles", "", "3400"]]
    elif (family, kind) == ("xml", "ours"):
        p.add_table("XmlFile", [(f"X{i}", f"[INSTALLDIR]x{i % FILES}.xml", f"/c/e[@k='k{i}']", "0", "v",
                                 f"value {i} of [ProductName]", "", "1", "0", "Main", "") for i in range(rows)])
    elif (family, kind) == ("xml", "theirs"):
        p.tables["IniFile"] = (INI_HEADER, [[f"I{i}", f"file{i % FILES}.ini", "INSTALLDIR", "settings", f"key{i}",
                                             f"value {i} of [ProductName]", "0", "Main"] for i in range(rows)])
        p.sequence += [["WriteIniValues", "", "5100"], ["RemoveIniValues", "", "3800"]]
    elif (family, kind) == ("cab", "ours"):
        p.add_table("CabPackage", [(f"C{i}", "[#payload]", f"[INSTALLDIR]{folder_of(i)}\\c{i}", "0", "Main", "")
                                   for i in range(rows)])
    elif (family, kind) == ("cab", "theirs"):
        folder_properties(p, rows)
        p.tables["DuplicateFile"] = (DUPLICATE_HEADER, [[f"D{i}", "Main", "payload", f"copy{i}.cab", folder_of(i).upper()]
                                                        for i in range(rows)])
        p.sequence += [["DuplicateFiles", "", "4210"], ["RemoveDuplicateFiles", "", "3400"]]
    elif family == "qword":
        p.tables["Registry"] = (REGISTRY_HEADER, [[f"R{i}", "2", key.format(i % FILES), f"q{i}", "#1", "Main"]
                                                  for i in range(rows)])
        p.sequence += [["WriteRegistryValues", "", "5000"], ["RemoveRegistryValues", "", "2600"]]
        if kind == "ours":
            p.add_table("RegistryQword", [(f"R{i}", str(2 ** 40 + i), "") for i in range(rows)])
    elif family == "integer":
        # A hundred properties, each taken by many rows (Wine looks every
        # property up in a table, at a cost that grows with the number of
        # properties; a package has few); one of them needs normalising.
        p.tables["Registry"] = (REGISTRY_HEADER, [[f"R{i}", "2", key.format(i % FILES), f"d{i}",
                                                   f"#[P{i % 100}]" if kind == "ours" else f"#{i % 100}", "Main"]
                                                  for i in range(rows)])
        p.sequence += [["WriteRegistryValues", "", "5000"], ["RemoveRegistryValues", "", "2600"]]
        if kind == "ours":
            p.use_kit("FixRegistryIntegerProperties")
            for i in range(100):
                p.add_property(f"P{i}", " 0x0" if i == 0 else str(i))
    elif (family, kind) == ("manifest", "ours"):
        p.add_table("EventManifest", [(f"E{i}", "Main", f"[INSTALLDIR]m{i}.man") for i in range(rows)])
    elif (family, kind) == ("xmlnodes", "ours"):
        p.add_table("XmlFile", [(f"X{j}", "[INSTALLDIR]big.xml", f"/c/e[@k='k{j * rows // EDITS}']", "0", "v",
                                 f"value {j}", "", "1", "0", "Main", "") for j in range(EDITS)])
    elif (family, kind) == ("xmlevery", "ours"):
        p.add_table("XmlFile", [("Every", "[INSTALLDIR]big.xml", "/c/e", "1", "v", "new", "", "1", "0", "Main", "")])
    elif (family, kind) == ("cabentries", "ours"):
        p.add_table("CabPackage", [("Entries", "[#payload]", "[INSTALLDIR]entries", "0", "Main", "")])
    elif (family, kind) == ("remove", "ours"):
        p.add_table("RemoveFileEx", [(f"X{i}", "Main", f"[INSTALLDIR]{folder_of(i)}\\old{i}.tmp", "0", "1", "")
                                     for i in range(rows)])
    elif (family, kind) == ("remove", "theirs"):
        folder_properties(p, rows)
        p.tables["RemoveFile"] = (REMOVE_HEADER, [[f"F{i}", "Main", f"old{i}.tmp", folder_of(i).upper(), "1"]
                                                  for i in range(rows)])
    return p


def folder_of(i):
    """The folder of the i-th file of the move, remove and cab families, a
    hundred to a folder: Wine looks up a name that does not exist by reading
    its whole folder, so one flat folder of N files costs N^2 under Wine
    whoever makes them, and would measure that instead of the actions."""
    return f"d{i // PER_FOLDER}"


def folder_properties(p, rows):
    """The standard actions take a folder as a property: D<k> set to
    [INSTALLDIR]d<k> (type 51, before InstallValidate, install and uninstall)."""
    for k in range((rows + PER_FOLDER - 1) // PER_FOLDER):
        p.custom_actions.append([f"SetD{k}", "51", f"D{k}", f"[INSTALLDIR]d{k}"])
        p.sequence.append([f"SetD{k}", "", "1001"])


def plant_files(prefix, family, rows):
    """The files the removal families remove, and the XML files the xml
    family edits, made before each install."""
    folder = prefix.root / "drive_c" / "Program Files" / "RowCost"
    if family == "remove":
        for i in range(rows):
            (folder / folder_of(i)).mkdir(parents=True, exist_ok=True)
            (folder / folder_of(i) / f"old{i}.tmp").write_bytes(b"old")
    if family == "xml":
        folder.mkdir(parents=True, exist_ok=True)
        for f in range(FILES):
            elements = "".join(f'<e k="k{i}" v="0"/>' for i in range(f, rows, FILES))
            (folder / f"x{f}.xml").write_text(f"<c>{elements}</c>")
    if family in ("xmlnodes", "xmlevery"):
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "big.xml").write_text("<c>" + "".join(f'\n  <e k="k{i}" v="0"/>' for i in range(rows)) + "\n</c>\n")


FAMILIES = {  # labels of ours and theirs (None: on its own), and the immediate action whose installer calls are counted
    "integer": ("RegistryIntegers", "Registry", "FixRegistryIntegerProperties"),
    "manifest": ("EventManifest", None, "InstallEventManifest"),
    "xmlnodes": ("XmlFile", None, "InstallXmlFiles"),
    "xmlevery": ("XmlFile", None, "InstallXmlFiles"),
    "cabentries": ("CabPackage", None, "InstallCabs"),
    "text": ("TextFile", "IniFile", "InstallTextFiles"),
    "registry": ("RegistryEx", "Registry", "InstallRegFiles"),
    "move": ("MoveFileEx", "DuplicateFile", "MoveFilesEx"),
    "remove": ("RemoveFileEx", "RemoveFile", "RemoveFilesEx"),
    "xml": ("XmlFile", "IniFile", "InstallXmlFiles"),
    "cab": ("CabPackage", "DuplicateFile", "InstallCabs"),
    "qword": ("RegistryQword", "Registry", "FixQwordRegistry"),
}
UNITS = {"integer": "keys", "manifest": "manifests (one wevtutil run each)",
         "xmlnodes": f"elements of one file, {EDITS} rows each setting one",
         "xmlevery": "elements of one file, one row setting them all", "cabentries": "entries of one cabinet (100 a folder), one row",
         "text": "files", "registry": "keys", "move": "copies of one installed file (100 a folder)",
         "remove": "files removed (deferred, undoably), 100 a folder", "xml": "XML files",
         "cab": "folders, one small cabinet each (100 a folder)", "qword": "keys"}
FILES_PER_FAMILY = {"integer": FILES, "manifest": "", "xmlnodes": "", "xmlevery": "", "cabentries": "",
                    "text": FILES, "registry": FILES, "move": "", "remove": "", "xml": FILES, "cab": "",
                    "qword": FILES}


def cpu_of(pid):
    """utime + stime of a process, in seconds."""
    try:
        fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except (OSError, IndexError):
        return 0.0


def wineserver_pid(env):
    out = subprocess.run(["pgrep", "-f", "wineserver"], capture_output=True, text=True).stdout.split()
    for pid in out:
        try:
            if Path(f"/proc/{pid}/environ").read_bytes().find(f"WINEPREFIX={env['WINEPREFIX']}".encode()) >= 0:
                return int(pid)
        except OSError:
            pass
    # The server of a prefix has its directory as working directory.
    for pid in out:
        try:
            if os.readlink(f"/proc/{pid}/cwd").startswith(env["WINEPREFIX"]):
                return int(pid)
        except OSError:
            pass
    return None


def fresh_prefix():
    env = dict(os.environ, WINEPREFIX=str(PREFIX), WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=")
    subprocess.run(["wineserver", "-k"], env=env, capture_output=True)
    shutil.rmtree(PREFIX, ignore_errors=True)
    PREFIX.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run(["cp", "-a", str(TEMPLATE), str(PREFIX)], check=True)
    os.environ["WINEPREFIX"] = str(PREFIX)
    prefix = Prefix()  # starts the server and keeps it warm
    # The services this first call starts outlive it: they must not hold a pipe of ours.
    subprocess.run(["wine", "cmd", "/c", "exit", "0"], env=prefix.env, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
    return prefix


def timed(prefix, *args, log):
    server = wineserver_pid(prefix.env)
    server_cpu = cpu_of(server) if server else 0.0
    children = os.times()
    start = time.monotonic()
    code, text = prefix.msiexec(*args, log=log)
    wall = time.monotonic() - start
    after = os.times()
    cpu = (after.children_user - children.children_user) + (after.children_system - children.children_system)
    cpu += (cpu_of(server) - server_cpu) if server else 0.0
    if code != 0:
        raise SystemExit(f"row_cost: msiexec {args[0]} failed with {code}; see {log}")
    return wall, cpu, text


TIME_LINE = re.compile(r"^(\w+) \(\w+:\w+\) \[[\d:]+\]: Time: ([\d.]+) ms; installer calls (\d+) in ([\d.]+) ms; "
                       r"registry calls (\d+) in ([\d.]+) ms; own ([\d.]+) ms\.$", re.M)


def own_times(log_text):
    """Per library action: (ms in all, installer calls, ms in them, registry calls, ms in them, own ms), summed."""
    totals = {}
    for m in TIME_LINE.finditer(log_text):
        values = [float(m.group(i)) for i in range(2, 8)]
        totals[m.group(1)] = [a + b for a, b in zip(totals.get(m.group(1), [0.0] * 6), values)]
    return totals


def prepared_prefix(family, rows):
    prefix = fresh_prefix()
    plant_files(prefix, family, rows)
    if family == "manifest":
        double = WevtutilDouble(prefix, BUILD / "bench" / "wevtutil-original")
        double.install()
        double.use_in(prefix)
    return prefix


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--family", choices=sorted(FAMILIES), default="text")
    parser.add_argument("--rows", default="1000,10000")
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    work = BUILD / "bench" / "row-cost"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    ours, theirs, counted = FAMILIES[args.family]
    kinds = ("base", "ours", "theirs") if theirs else ("base", "ours")
    per_size = {}  # rows -> {"install ours": wall ms/row, ..., "own <action>": ms/row}
    for rows in (int(r) for r in args.rows.split(",")):
        msis = {kind: package(args.family, kind, rows).build(work) for kind in kinds}
        results = {kind: {"install": [], "uninstall": []} for kind in msis}
        for round_ in range(args.rounds):
            for kind, msi in msis.items():
                prefix = prepared_prefix(args.family, rows)
                log = work / f"{kind}-{rows}-{round_}.log"
                wall, cpu, _ = timed(prefix, "/i", prefix.windows_path(msi), log=log)
                results[kind]["install"].append((wall, cpu))
                wall, cpu, _ = timed(prefix, "/x", prefix.windows_path(msi), log=work / f"{kind}-{rows}-{round_}-x.log")
                results[kind]["uninstall"].append((wall, cpu))
        # The calls and the library's own time are read from runs of their
        # own: verbose logging adds the lines.
        prefix = prepared_prefix(args.family, rows)
        _, _, text = timed(prefix, "/i", prefix.windows_path(msis["ours"]), "LOGVERBOSE=1",
                           log=work / f"ours-{rows}-calls.log")
        _, _, untext = timed(prefix, "/x", prefix.windows_path(msis["ours"]), "LOGVERBOSE=1",
                             log=work / f"ours-{rows}-calls-x.log")
        found = [int(m) for line in library_lines(text, counted)
                 for m in re.findall(r"^Installer calls: (\d+)\.$", line)]
        calls = found[0] if found else None
        against = f"against {theirs}" if theirs else "on its own"
        print(f"== {ours} {against}: {rows} rows over {FILES_PER_FAMILY[args.family]} "
              f"{UNITS[args.family]}, {args.rounds} interleaved rounds (per row, excess "
              f"over the baseline package)", flush=True)
        figures = per_size.setdefault(rows, {})
        for phase in ("install", "uninstall"):
            base_wall = statistics.median(w for w, _ in results["base"][phase])
            base_cpu = statistics.median(c for _, c in results["base"][phase])
            medians = {}
            for kind in kinds[1:]:
                walls = [1000 * (w - base_wall) / rows for w, _ in results[kind][phase]]
                cpus = [1000 * (c - base_cpu) / rows for _, c in results[kind][phase]]
                medians[kind] = (statistics.median(walls), statistics.median(cpus))
                figures[f"{phase} {ours if kind == 'ours' else theirs} wall"] = medians[kind][0]
                label = f"{ours if kind == 'ours' else theirs:10}"
                print(f"   {phase:9} {label} wall ms/row min {min(walls):6.3f} median {medians[kind][0]:6.3f} "
                      f"max {max(walls):6.3f} | cpu ms/row min {min(cpus):6.3f} median {medians[kind][1]:6.3f} "
                      f"max {max(cpus):6.3f}")
            if theirs:
                ratio_wall = medians["ours"][0] / medians["theirs"][0] if medians["theirs"][0] > 0 else float("nan")
                ratio_cpu = medians["ours"][1] / medians["theirs"][1] if medians["theirs"][1] > 0 else float("nan")
                print(f"   {phase:9} ratio {ours}/{theirs}: wall {ratio_wall:.2f}, cpu {ratio_cpu:.2f}")
        for phase, log_text in (("install", text), ("uninstall", untext)):
            for action, (total, n_calls, in_calls, n_reg, in_reg, own) in sorted(own_times(log_text).items()):
                if total < 0.5:
                    continue  # an action with nothing to do
                figures[f"action {phase} {action}"] = total / rows
                figures[f"own {phase} {action}"] = own / rows
                print(f"   {phase:9} {action}: {total / rows:6.3f} ms/row, of which installer calls "
                      f"{n_calls / rows:.2f}/row {in_calls / rows:6.3f} ms, registry calls {n_reg / rows:.2f}/row "
                      f"{in_reg / rows:6.3f} ms, own {own / rows:6.3f} ms/row")
        if calls is not None:
            print(f"   installer calls of {counted}: {calls}, {calls / rows:.2f} per row", flush=True)
    sizes = sorted(per_size)
    if len(sizes) > 1:
        small, large = sizes[-2], sizes[-1]
        print(f"== per-row ratio {large} rows / {small} rows (1.00: linear)")
        for name, value in per_size[large].items():
            before = per_size[small].get(name)
            if before and before > 0:
                print(f"   {name}: {value:.3f} / {before:.3f} = {value / before:.2f}")
    return 0


def stop_server():
    """The last run's server would stay warm after the bench, beside whatever runs next."""
    env = dict(os.environ, WINEPREFIX=str(PREFIX))
    subprocess.run(["wineserver", "-k"], env=env, capture_output=True)


if __name__ == "__main__":
    try:
        sys.exit(main())
    finally:
        stop_server()
