"""The whole machine state an action family can touch, recorded before an
install and compared after it: what the fault-injection tests prove exact,
and what the demo (or an author testing a package under Wine) uses to show
that a failed install left nothing behind.

Recorded:
- every file and folder under the watched folders: bytes, size, last-write
  time (in Windows' units of 100 ns), permission bits (Wine's read-only attribute) and
  extended attributes (Wine's other DOS attributes); a folder's own times are
  left out: they change whenever an entry comes and goes, on Windows as here;
- the restart-time rename list exactly as `reg export` renders it (every byte
  of a REG_MULTI_SZ in hex), including its absence;
- the registry values under the watched keys, as exported;
- the event manifests registered, as the recording wevtutil double saw them.
"""

import hashlib
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from msipackage import BUILD, DOUBLES, TEST_TOOLS

SESSION_MANAGER = r"HKLM\SYSTEM\CurrentControlSet\Control\Session Manager"
RENAMES = "PendingFileRenameOperations"


OLD_TIME = 1_500_000_000  # a last-write time no write of today can produce


def old_file(path, data, mode=None):
    """Writes `path` (and its folders) with `data`, the last-write time OLD_TIME and `mode`."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)
    if mode is not None:
        os.chmod(path, mode)
    os.utime(path, (OLD_TIME, OLD_TIME))
    return path


def fresh_folder(path):
    """`path` emptied (or made): a scratch folder of a test."""
    shutil.rmtree(path, ignore_errors=True)
    path.mkdir(parents=True)
    return path


def export_key(prefix, key, exists=False):
    """The `reg export` text of `key`, or None when absent (see Prefix.export_key)."""
    return prefix.export_key(key, exists)


def registry_values(prefix, key):
    """{key: {value name ('@' for the default): data as exported}} for `key` and the keys below it."""
    keys, current = {}, None
    for line in (export_key(prefix, key) or "").splitlines():
        if line.startswith("[") and line.endswith("]"):
            current = keys.setdefault(line[1:-1].replace("HKEY_LOCAL_MACHINE\\", "HKLM\\", 1), {})
        elif current is not None and "=" in line:
            match = re.match(r'^(@|"(?:[^"\\]|\\.)*")=(.*)$', line)
            if match:
                current[match.group(1).strip('"')] = re.sub(r",\s+", ",", match.group(2))
    return keys


def rename_value(prefix):
    """The rename list's exported line (type and every byte), or None when there is no value."""
    text = export_key(prefix, SESSION_MANAGER, exists=True)
    match = re.search(r'^"' + RENAMES + r'"=(.*)$', text, re.M)
    return match.group(1).replace(" ", "") if match else None


def utf16_hex(strings, closing=True):
    """hex(7) data for a list of strings, each with its NUL, plus the list's closing NUL."""
    data = b"".join(s.encode("utf-16-le") + b"\0\0" for s in strings) + (b"\0\0" if closing else b"")
    return data


def set_rename_value(prefix, data, type_code=7):
    """Puts raw bytes of the given registry type into the rename list (None removes it)."""
    if data is None:
        prefix.clear_pending_renames()
        return
    body = ",".join(f"{b:02x}" for b in data)
    text = ("Windows Registry Editor Version 5.00\r\n\r\n"
            f"[{SESSION_MANAGER.replace('HKLM', 'HKEY_LOCAL_MACHINE')}]\r\n"
            f'"{RENAMES}"=hex({type_code:x}):{body}\r\n')
    work = Path(tempfile.mkdtemp(prefix="reg-", dir=BUILD))
    try:
        path = work / "set.reg"
        path.write_bytes(b"\xff\xfe" + text.encode("utf-16-le"))
        prefix.clear_pending_renames()
        # `reg import` failed once in many runs on a loaded machine, saying
        # nothing; a second try has always gone through. Three tries, each
        # checked by reading the value back, then a failure.
        for _ in range(3):
            result = prefix.wine("reg", "import", prefix.windows_path(path))
            if result.returncode == 0 and rename_value(prefix) is not None:
                break
        assert result.returncode == 0 and rename_value(prefix) is not None, \
            (result.returncode, result.stdout, result.stderr)
    finally:
        shutil.rmtree(work, ignore_errors=True)


def file_state(path):
    st = path.lstat()
    try:
        xattrs = {name: os.getxattr(path, name, follow_symlinks=False)
                  for name in os.listxattr(path, follow_symlinks=False)}
    except OSError:
        xattrs = {}
    if path.is_symlink():
        return ("link", os.readlink(path), xattrs)
    if path.is_dir():
        return ("dir", st.st_mode & 0o777, xattrs)
    digest = hashlib.sha256(path.read_bytes()).hexdigest()
    # Windows keeps times in units of 100 ns; a file made on the host has
    # nanoseconds, which no Windows program can read or put back. The inode
    # and link count say it is the same file, restored into, not replaced.
    return ("file", st.st_size, digest, st.st_mtime_ns // 100, st.st_mode & 0o777, xattrs, st.st_ino,
            st.st_nlink)


class Manifests:
    """The manifests registered as far as the recording wevtutil double knows:
    replays its "im"/"um" calls over the set registered before."""

    def __init__(self, calls_path):
        self.calls_path = Path(calls_path)

    def registered(self, before=frozenset()):
        registered = set(before)
        if self.calls_path.exists():
            for line in self.calls_path.read_text(encoding="utf-8").splitlines():
                match = re.match(r'^"[^"]*" (im|um) "(.*)"$', line)
                if match:
                    (registered.add if match.group(1) == "im" else registered.discard)(match.group(2))
        return frozenset(registered)


class MachineState:
    def __init__(self, prefix, folders=(), registry_keys=(), manifests=None, descriptors=()):
        self.prefix = prefix
        self.folders = [Path(f) for f in folders]
        self.registry_keys = list(registry_keys)
        self.manifests = manifests
        self.descriptors = list(descriptors)  # keys under HKLM: their security descriptors, byte for byte

    def capture(self):
        files = {}
        for folder in self.folders:
            if not folder.exists():
                files[str(folder)] = None
                continue
            files[str(folder)] = file_state(folder)[:1]
            for path in sorted(folder.rglob("*")):
                files[str(path)] = file_state(path)
        state = {"files": files, "renames": rename_value(self.prefix)}
        for key in self.registry_keys:
            state["registry " + key] = export_key(self.prefix, key)
        if self.manifests is not None:
            state["manifests"] = sorted(self.manifests.registered())
        for key in self.descriptors:
            state["descriptor " + key] = self.prefix.wine(str(TEST_TOOLS / "key_sddl.exe"), key).stdout.decode()
        return state


def differences(before, after):
    """Readable lines for every difference between two captures."""
    lines = []
    for part in sorted(set(before) | set(after)):
        a, b = before.get(part), after.get(part)
        if part == "files":
            for path in sorted(set(a) | set(b)):
                if a.get(path) != b.get(path):
                    lines.append(f"{path}: {a.get(path, 'absent')} -> {b.get(path, 'absent')}")
        elif a != b:
            lines.append(f"{part}: {a!r} -> {b!r}")
    return lines


class HeldFile:
    """A file held open by another program (tests/tools/hold_file.cpp) for the
    duration of a `with` block: share "none" or "read"."""

    def __init__(self, prefix, windows_path, share):
        self.prefix, self.path, self.share = prefix, windows_path, share
        self.signal = prefix.host_path("C:\\hold-signal")

    def __enter__(self):
        shutil.rmtree(self.signal, ignore_errors=True)
        self.signal.mkdir(parents=True)
        self.process = subprocess.Popen(
            ["wine", str(TEST_TOOLS / "hold_file.exe"), self.path, self.share, "C:\\hold-signal"],
            env=self.prefix.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while not (self.signal / "ready").exists():
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"hold_file.exe could not hold {self.path} (exit {self.process.poll()})")
            time.sleep(0.05)
        return self

    def __exit__(self, *exc):
        (self.signal / "release").write_bytes(b"")
        try:
            self.process.wait(timeout=60)
        finally:
            shutil.rmtree(self.signal, ignore_errors=True)
        return False


class WevtutilDouble:
    """Wine's own wevtutil.exe succeeds at everything, so the prefix gets a
    double that records its command lines and fails on request (see
    tools/doubles/wevtutil_double.cpp), preferred over the builtin by a DLL
    override in the environment msiexec and its custom action server inherit.
    It goes where the DLL's process looks for system32 (syswow64 for the
    32-bit DLL)."""

    TOOL = "C:\\windows\\system32\\wevtutil.exe"

    def __init__(self, prefix, saved_dir):
        self.prefix = prefix
        self.tool = prefix.system_tool("wevtutil.exe")
        self.saved = Path(saved_dir) / "wevtutil.exe"
        self.folder = prefix.host_path("C:\\wevtutil-double")
        self.calls_path = self.folder / "calls.txt"

    def install(self):
        self.saved.parent.mkdir(parents=True, exist_ok=True)
        if not self.saved.exists():
            shutil.copyfile(self.tool, self.saved)
        shutil.copyfile(DOUBLES / "wevtutil_double.exe", self.tool)
        return self

    def restore(self):
        shutil.copyfile(self.saved, self.tool)

    def __enter__(self):
        return self.install()

    def __exit__(self, *exc):
        self.restore()
        return False

    def use_in(self, prefix):
        """Prefers the double in `prefix`'s environment and starts with no calls and no rules."""
        prefix.env["WINEDLLOVERRIDES"] = prefix.env.get("WINEDLLOVERRIDES", "") + ";wevtutil.exe=n"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)

    def fail_when(self, *rules):
        """Exit codes of the double: (text in the command line, code), first match wins."""
        (self.folder / "rules.txt").write_text("".join(f"{text}\t{code}\n" for text, code in rules))

    def calls(self):
        return self.calls_path.read_text(encoding="utf-8").splitlines() if self.calls_path.exists() else []

    @classmethod
    def command(cls, verb, path):
        return f'"{cls.TOOL}" {verb} "{path}"'


class PerfDouble:
    """Wine's loadperf.dll, lodctr.exe and unlodctr.exe are stubs that report
    success and do nothing, so the prefix gets doubles that record every call
    and fail on request (tools/doubles/perf_double.h). The DLL double is loaded
    from the system directory without an override; the tools need one, as the
    wevtutil double does."""

    FILES = {"loadperf.dll": "loadperf_double.dll", "lodctr.exe": "lodctr_double.exe",
             "unlodctr.exe": "unlodctr_double.exe"}

    def __init__(self, prefix, saved_dir):
        self.prefix = prefix
        self.saved = Path(saved_dir)
        self.folder = prefix.host_path("C:\\perf-double")

    def __enter__(self):
        self.saved.mkdir(parents=True, exist_ok=True)
        for name, double in self.FILES.items():
            if not (self.saved / name).exists():
                shutil.copyfile(self.prefix.system_tool(name), self.saved / name)
            shutil.copyfile(DOUBLES / double, self.prefix.system_tool(name))
        return self

    def __exit__(self, *exc):
        for name in self.FILES:
            shutil.copyfile(self.saved / name, self.prefix.system_tool(name))
        return False

    def use_in(self, prefix):
        """Prefers the tool doubles in `prefix`'s environment; no calls, no rules."""
        prefix.env["WINEDLLOVERRIDES"] = prefix.env.get("WINEDLLOVERRIDES", "") + ";lodctr.exe=n;unlodctr.exe=n"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)

    def fail_when(self, *rules):
        """Results: (text in "<function or tool>|<command line>", code), first match wins."""
        (self.folder / "rules.txt").write_text("".join(f"{text}\t{code}\n" for text, code in rules))

    def calls(self):
        path = self.folder / "calls.txt"
        return path.read_text(encoding="utf-8").splitlines() if path.exists() else []
