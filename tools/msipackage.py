"""Packages from the kit, run through Wine's msiexec: what the end-to-end
tests and the demo share.

A package is a wixl base (directories, components, features, files, the DLL
in the Binary table) plus the package-author kit's IDT tables and test rows
added with msibuild. Runs go through `wine cmd /c` with a batch wrapper that
echoes the real exit code (wine itself passes it on modulo 256), always under
a timeout, against the test run's prefix (tools/wine-prefix).
"""

import os
import re
import shutil
import subprocess
import tempfile
import unittest
import uuid
from pathlib import Path

import kit as kitlib

ROOT = Path(__file__).resolve().parents[1]
KIT = ROOT / "packaging"
BUILD = Path(os.environ.get("UTILS_BUILD", ROOT / "build"))
DLL = Path(os.environ.get("UTILS_DLL", BUILD / "windows-x64" / "utils.dll"))
# The architecture of the DLL under test: "x64", or "x86" for the shipped DLL
# under WOW64 (the e2e-x86 tier, run inside tools/wow64). The packages stay
# 64-bit on both tiers, so only the custom actions' process differs.
ARCH = os.environ.get("UTILS_ARCH", "x64")
# Where a process of the DLL's architecture finds C:\windows\system32: a
# 32-bit process is redirected to syswow64, so 32-bit doubles of system tools go there.
SYSTEM_DIR = "windows/syswow64" if ARCH == "x86" else "windows/system32"
# Where a row without the Win64 bit lands below HKLM\Software: the DLL's own registry view.
WOW = "Wow6432Node\\" if ARCH == "x86" else ""
# Test programs built for the DLL's architecture (helpers), and the stand-ins
# for system tools that authors use too.
TEST_TOOLS = DLL.parent / "tests"
DOUBLES = DLL.parent / "tools"
MSIEXEC_TIMEOUT = int(os.environ.get("UTILS_MSIEXEC_TIMEOUT", "180"))  # benchmarks of 100,000 rows raise it


class Prefix:
    """The Wine prefix of this test run (WINEPREFIX from tools/wine-env)."""

    def __init__(self):
        self.root = Path(os.environ.get("WINEPREFIX", BUILD / "wine" / "prefix"))
        self.env = dict(os.environ, WINEPREFIX=str(self.root), WINEDEBUG="-all")
        self.env.setdefault("WINEDLLOVERRIDES", "mscoree,mshtml=")
        # A cold start carries out the restart-time rename list: keep the server
        # up between the processes a test runs (a no-op when it is up already).
        subprocess.run(["wineserver", "-p"], env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=False)

    def system_tool(self, name):
        """Where the DLL's process finds C:\\windows\\system32\\<name> on the host."""
        return self.root / "drive_c" / SYSTEM_DIR / name

    def host_path(self, windows_path):
        """C:\\x\\y -> <prefix>/drive_c/x/y"""
        drive, rest = windows_path[0].lower(), windows_path[2:].replace("\\", "/").lstrip("/")
        if drive == "z":
            return Path("/") / rest
        return self.root / f"drive_{drive}" / rest

    @staticmethod
    def windows_path(host_path):
        """A host path as Wine's Z: drive sees it."""
        return "Z:" + str(Path(host_path).resolve()).replace("/", "\\")

    def wine(self, *args, timeout=120, check=False):
        return subprocess.run(["wine", *args], env=self.env, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=timeout, check=check)

    def msiexec(self, *args, log):
        """Runs msiexec with the given arguments and a verbose log; returns (exit code, log text)."""
        work = Path(tempfile.mkdtemp(prefix="msiexec-", dir=BUILD))
        try:
            bat = work / "run.bat"
            bat.write_text("@echo off\r\nstart /wait msiexec %*\r\necho EXITCODE=%ERRORLEVEL%\r\n")
            log = Path(log)
            if log.exists():
                log.unlink()
            # A run that wrote no log never reached msiexec: Wine's cmd failed to start (no exit code) or its
            # `start` could not launch msiexec (exit code 1), each seen once. That is the harness: try once more.
            for attempt in range(2):
                result = self.wine("cmd", "/c", self.windows_path(bat), *args, "/qn", "/l*v", self.windows_path(log),
                                   timeout=MSIEXEC_TIMEOUT)
                out = result.stdout.decode("utf-8", "replace")
                match = re.search(r"EXITCODE=(\d+)", out)
                if log.exists():
                    break
            code = int(match.group(1)) if match else -1
            text = read_log(log) if log.exists() else "cmd: " + result.stderr.decode("utf-8", "replace")[-2000:]
            return code, text
        finally:
            shutil.rmtree(work, ignore_errors=True)

    def export_key(self, key, exists=False):
        """The `reg export` text of `key` in the 64-bit view (continuation lines
        joined), or None when absent. A key that `exists` is asked for up to
        three times: under load (two tiers side by side) an export has come
        back empty once."""
        work = Path(tempfile.mkdtemp(prefix="reg-", dir=BUILD))
        try:
            out = work / "key.reg"
            for _ in range(3 if exists else 1):
                # /reg:64 whichever reg.exe runs (the x86 tier's is 32-bit).
                result = self.wine("reg", "export", key, self.windows_path(out), "/y", "/reg:64")
                if out.exists():
                    return read_log(out).replace("\\\r\n", "").replace("\\\n", "")
            assert not exists, f"reg export of {key} failed: {result.returncode} {result.stdout} {result.stderr}"
            return None
        finally:
            shutil.rmtree(work, ignore_errors=True)

    def pending_renames(self):
        """The restart-time rename list as (source, target) pairs, "\\??\\" kept.
        Read through `reg export`, whose hex(7) form keeps every NUL."""
        text = self.export_key(r"HKLM\SYSTEM\CurrentControlSet\Control\Session Manager", exists=True)
        match = re.search(r'^"PendingFileRenameOperations"=hex\(7\):([0-9a-fA-F,\s]*)$', text, re.M)
        if not match:
            return []
        data = bytes(int(h, 16) for h in re.findall(r"[0-9a-fA-F]{2}", match.group(1)))
        text = data.decode("utf-16-le")
        if not text.endswith("\0\0"):
            return []  # empty or malformed: read as an empty list, as the library does
        strings = text[:-1].split("\0")[:-1]  # without the list's closing NUL and the last split piece
        return list(zip(strings[0::2], strings[1::2]))

    def clear_pending_renames(self):
        self.wine("reg", "delete", r"HKLM\SYSTEM\CurrentControlSet\Control\Session Manager", "/v",
                  "PendingFileRenameOperations", "/f")

    def restart(self):
        """What a restart does to the rename list: wineboot -r carries it out."""
        self.wine("wineboot", "-r", timeout=180)

    def reg(self, *args):
        """reg.exe in the 64-bit view, which a 32-bit reg.exe (the x86 tier's) reaches only when asked to."""
        return self.wine("reg", *args, "/reg:64")

    def reg_query(self, key, value=None):
        """The data of one value as `reg query` prints it, or None when absent."""
        args = ["reg", "query", key] + (["/v", value] if value is not None else [])
        result = self.wine(*args)
        if result.returncode != 0:
            return None
        return result.stdout.decode("utf-8", "replace")


def read_log(path):
    data = Path(path).read_bytes()
    if data[:2] == b"\xff\xfe":
        return data.decode("utf-16-le", "replace")
    return data.decode("utf-8", "replace")


def library_lines(log_text, action):
    """The messages the library logged for `action`, prefix removed, in order."""
    pattern = re.compile(r"^" + re.escape(action) + r" \([0-9a-f]+:[0-9a-f]+\) \[\d\d:\d\d:\d\d:\d\d\d\]: (.*)$")
    lines = []
    for line in log_text.splitlines():
        m = pattern.match(line.rstrip("\r"))
        if m:
            lines.append(m.group(1))
    return lines


def properties(log_text):
    """The property dump at the end of a verbose log: name -> value (server side wins)."""
    found = {}
    for line in log_text.splitlines():
        m = re.match(r"^Property\((S|C)\): (\w+) = (.*)$", line.rstrip("\r"))
        if m and (m.group(1) == "S" or m.group(2) not in found):
            found[m.group(2)] = m.group(3)
    return found


def read_idt(path):
    """(header lines, rows) of an IDT file; rows are lists of cells."""
    lines = Path(path).read_text(encoding="utf-8").splitlines()
    return lines[:3], [line.split("\t") for line in lines[3:] if line.strip()]


def write_idt(path, header, rows):
    text = "\r\n".join(header + ["\t".join(r) for r in rows]) + "\r\n"
    Path(path).write_text(text, encoding="utf-8")


class Package:
    """Builds one test package. Components hold files installed into INSTALLDIR."""

    def __init__(self, name, directory=None, by_hand=False):
        """`by_hand`: the package an author writes from a table's contract alone:
        the DLL as a Binary row, the test's own tables, CustomAction and
        sequence rows, nothing from the kit."""
        self.name = name
        self.by_hand = by_hand
        self.features_off = set()  # features not installed (Level 0): their components have no action
        self.product_code = "{" + str(uuid.uuid4()).upper() + "}"
        self.upgrade_code = "{" + str(uuid.uuid4()).upper() + "}"
        self.directory = directory or f"SetupUtilsTest{uuid.uuid4().hex[:8]}"
        self.components = {}     # component -> list of (file id, file name, content)
        self.features = {}       # component -> its feature ("Complete" unless given)
        self.properties = {}
        self.kit_actions = []    # actions of the kit (tools/add-setup-utils adds them)
        self.custom_actions = []  # the test's own rows: Action, Type, Source, Target
        self.sequence = []       # the test's own rows: Action, Condition, Sequence
        self.tables = {}         # table name -> (header, rows)
        self.version = "1.0.0"
        self.component_guids = {}  # component -> its GUID, drawn at the first build
        self.removes_old_at = None  # the sequence of RemoveExistingProducts in a major upgrade

    def major_upgrade(self, name, remove_at=6601):
        """The next version of this product as a major upgrade: same upgrade
        code and component GUIDs, a new ProductCode, and RemoveExistingProducts
        at `remove_at` (after InstallFinalize by default: the old product goes
        after the new one is installed; None: no upgrade rows, both products
        stay). Components and tables are copied."""
        new = Package(name, self.directory, self.by_hand)
        new.upgrade_code = self.upgrade_code
        new.component_guids = self.component_guids
        new.version = "2.0.0"
        new.removes_old_at = remove_at
        new.components, new.features = dict(self.components), dict(self.features)
        new.properties, new.tables = dict(self.properties), dict(self.tables)
        new.kit_actions = list(self.kit_actions)
        return new

    def add_component(self, component, files=(), feature="Complete"):
        self.components[component] = list(files)
        self.features[component] = feature
        return self

    def add_property(self, name, value):
        self.properties[name] = value
        return self

    def use_kit(self, *actions):
        """The kit's CustomAction rows and recommended sequence for `actions`."""
        self.kit_actions += actions
        return self

    def add_table(self, idt_name, rows):
        """A kit table definition (packaging/<idt_name>.idt) filled with `rows`."""
        header, kit_rows = read_idt(KIT / f"{idt_name}.idt")
        self.tables[idt_name] = (header, kit_rows + [list(r) for r in rows])
        return self

    def fail_at(self, sequence, condition=""):
        """A deferred action that always fails, scheduled at `sequence` (when
        `condition` holds): the
        installer then rolls back everything before it. It is the library's own
        text-file writer handed a target in a directory that does not exist
        (Wine ignores the exit codes of deferred EXE actions, so a failing
        command would not do)."""
        self.custom_actions.append(["ForceFailure", "3073", "SetupUtils", "InstallTextFilesDeferred"])
        self.sequence.append(["ForceFailure", condition, str(sequence)])
        self.properties["ForceFailure"] = "files=00000000*atr>0^content>x^path>C:\\no\\such\\dir\\f.txt^rbf>|pfr="
        return self

    def run_host_script(self, sequence, script):
        """A deferred action at `sequence` that runs `script` (a host path) with
        the host's /bin/sh, as SYSTEM would run a program: the stand-in for a
        user acting on the machine while the installer's script runs."""
        self.custom_actions.append(["HostScript", "3106", "TARGETDIR",
                                    f"[System64Folder]start.exe /wait /unix /bin/sh {script}"])
        self.sequence.append(["HostScript", "", str(sequence)])
        return self

    def _wxs(self, work):
        comps, refs = [], {}
        for i, (component, files) in enumerate(self.components.items()):
            guid = self.component_guids.setdefault(component, "{" + str(uuid.uuid4()).upper() + "}")
            file_xml = []
            for fid, fname, content in files:
                src = f"{fid}.src"  # wixl takes sources relative to its working directory
                (work / src).write_bytes(content if isinstance(content, bytes) else content.encode("utf-8"))
                key = "yes" if not file_xml else "no"
                file_xml.append(f'<File Id="{fid}" Name="{fname}" Source="{src}" KeyPath="{key}"/>')
            if not file_xml:
                file_xml.append("<CreateFolder/>")
            comps.append(f'<Component Id="{component}" Guid="{guid}" Win64="yes">{"".join(file_xml)}</Component>')
            refs.setdefault(self.features.get(component, "Complete"), []).append(f'<ComponentRef Id="{component}"/>')
        props = "".join(f'<Property Id="{k}" Value="{v}"/>' for k, v in self.properties.items())
        if self.removes_old_at is not None:
            props += '<MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>'
        return f"""<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="{self.product_code}" Name="{self.name}" Language="1033" Version="{self.version}"
           Manufacturer="Setup Utils" UpgradeCode="{self.upgrade_code}">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
    <Media Id="1" Cabinet="data.cab" EmbedCab="yes"/>
    {props}
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="{self.directory}">{"".join(comps)}</Directory>
      </Directory>
    </Directory>
    {"".join(f'<Feature Id="{f}" Level="{0 if f in self.features_off else 1}">{"".join(r)}</Feature>'
             for f, r in refs.items())}
  </Product>
</Wix>
"""

    def build(self, out_dir):
        out_dir = Path(out_dir)
        out_dir.mkdir(parents=True, exist_ok=True)
        msi = out_dir / f"{self.name}.msi"
        self.msi = msi
        work = Path(tempfile.mkdtemp(prefix="pkg-", dir=out_dir))
        try:
            wxs = work / "base.wxs"
            wxs.write_text(self._wxs(work), encoding="utf-8")
            subprocess.run(["wixl", "-a", "x64", "-o", str(msi), "base.wxs"], cwd=work, check=True,
                           capture_output=True)
            # The library as an author adds it: the kit's tool, merging.
            # A test that loosens a kit table's columns (to plant an empty
            # value) brings its own definition, without the kit's validation.
            # The actions of every kit table the package holds come with it, loosened or not.
            kit_tables = [t for t, (header, _) in self.tables.items()
                          if (KIT / f"{t}.idt").exists() and read_idt(KIT / f"{t}.idt")[0] == header]
            actions = list(self.kit_actions) + [a["name"] for a in kitlib.load()["actions"]
                                                if set(a.get("tables", [])) & set(self.tables)]
            args = ["msibuild", str(msi)]
            if self.by_hand:
                (work / "Binary").mkdir()
                shutil.copyfile(DLL, work / "Binary" / "SetupUtils.ibd")
                write_idt(work / "Binary.idt", ["Name\tData", "s72\tv0", "Binary\tName"], [["SetupUtils", "SetupUtils.ibd"]])
                write_idt(work / "CustomAction.idt", ["Action\tType\tSource\tTarget", "s72\ti2\tS64\tS0",
                                                      "CustomAction\tAction"], self.custom_actions)
                args += ["-i", str(work / "Binary.idt"), "-i", str(work / "CustomAction.idt")]
            else:
                # As an author does it: the kit's tool, the rows from a rows
                # file. A row with a tab or a line break, which a rows file
                # cannot hold, and loosened tables are imported whole below.
                blocks = [(name, header[0].split("\t"), rows) for name, (header, rows) in self.tables.items()
                          if name in kit_tables and not any(set(c) & set("\t\r\n") for r in rows for c in r)]
                blocks.append(("CustomAction", ["Action", "Type", "Source", "Target"], self.custom_actions))
                blocks.append(("InstallExecuteSequence", ["Action", "Condition", "Sequence"], self.sequence))
                text = "".join(f"[{name}]\n" + "\t".join(columns) + "\n" +
                               "".join("\t".join(map(str, row)) + "\n" for row in rows)
                               for name, columns, rows in blocks if rows)
                (work / "rows.tsv").write_text(text, encoding="utf-8")
                subprocess.run([str(ROOT / "tools" / "add-setup-utils"), str(msi), "--dll", str(DLL),
                                "--tables", ",".join(kit_tables), "--actions", ",".join(actions),
                                "--rows", str(work / "rows.tsv")], check=True, capture_output=True)
            for name, (header, rows) in self.tables.items():
                if not self.by_hand and name in kit_tables and f"[{name}]\n" in text:
                    continue
                path = work / f"{name}.idt"
                write_idt(path, header, rows)
                args += ["-i", str(path)]
            if self.removes_old_at is not None:
                args += ["-q", f"UPDATE `InstallExecuteSequence` SET `Sequence` = {self.removes_old_at} "
                               "WHERE `Action` = 'RemoveExistingProducts'"]
            for action, condition, seq in (self.sequence if self.by_hand else []):
                if condition:
                    cond = condition.replace("'", "''")
                    args += ["-q", f"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) "
                                   f"VALUES ('{action}', '{cond}', {seq})"]
                else:
                    args += ["-q", f"INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) "
                                   f"VALUES ('{action}', {seq})"]
            if len(args) > 2:
                # In the work folder: a Binary row's file is found relative to it.
                subprocess.run(args, check=True, capture_output=True, cwd=work)
            return msi
        finally:
            shutil.rmtree(work, ignore_errors=True)

    def install_dir(self, prefix):
        return prefix.root / "drive_c" / "Program Files" / self.directory


def scratch_dir(test_name):
    # One tree per architecture: the x64 and x86 tiers may run side by side (ctest -j).
    path = BUILD / "e2e" / ARCH / test_name
    shutil.rmtree(path, ignore_errors=True)
    path.mkdir(parents=True)
    return path


class InstallerCase(unittest.TestCase):
    """An end-to-end case: the prefix, a scratch folder named after the test
    (`self.name`, at most 40 characters) and msiexec runs that log there.
    With `clears_renames` the rename list is emptied before and after."""

    clears_renames = False

    def setUp(self):
        self.prefix = Prefix()
        self.name = self.id().split(".")[-1][:40]
        self.work = scratch_dir(self.name)
        if self.clears_renames:
            self.prefix.clear_pending_renames()

    def tearDown(self):
        if self.clears_renames:
            self.prefix.clear_pending_renames()

    def scratch_keys(self, *keys):
        """Registry keys (64-bit view) removed now and again when the test ends."""
        for key in keys:
            self.prefix.reg("delete", key, "/f")
            self.addCleanup(self.prefix.reg, "delete", key, "/f")

    def run_msiexec(self, package, mode, *args, log="install.log"):
        msi = getattr(package, "msi", None) or package.build(self.work)
        return self.prefix.msiexec(mode, self.prefix.windows_path(msi), *args, log=self.work / log)

    def run_expecting(self, code, package, mode, *args, log="install.log"):
        """Runs msiexec, checks its exit code and returns the log's text."""
        got, text = self.run_msiexec(package, mode, *args, log=log)
        self.assertEqual(got, code, text[-4000:])
        return text

    def table_package(self, table, rows, name=None, files=(("readme", "readme.txt", "r"),), fail_at=None,
                      **properties):
        """A package whose component Main installs `files` and whose `table` holds `rows`;
        named after the test and numbered unless `name` is given."""
        self.count = getattr(self, "count", 0) + 1
        package = Package(name or f"{self.name}{self.count}").add_component("Main", list(files))
        package.add_table(table, rows)
        for key, value in properties.items():
            package.add_property(key, value)
        if fail_at:
            package.fail_at(fail_at)
        return package
