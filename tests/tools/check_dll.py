#!/usr/bin/env python3
"""check_dll.py X86_DLL X64_DLL DEF_FILE: fails on an export that is decorated
or not in the .def file (or missing), an import of anything but system DLLs
(libstdc++ or libgcc would keep the installer from loading it), or a version
resource without the product's names."""
import re
import subprocess
import sys

SYSTEM_DLLS = {"kernel32.dll", "advapi32.dll", "msi.dll", "rpcrt4.dll", "shlwapi.dll", "msvcrt.dll",
               "ntdll.dll", "user32.dll", "ole32.dll", "oleaut32.dll"}
OBJDUMP = {"x86": "i686-w64-mingw32-objdump", "x64": "x86_64-w64-mingw32-objdump"}


def tables(objdump, dll):
    text = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    imports = [m.lower() for m in re.findall(r"DLL Name: (\S+)", text)]
    exports, in_names = [], False
    for line in text.splitlines():
        if "[Ordinal/Name Pointer] Table" in line:
            in_names = True
            continue
        if in_names:
            m = re.match(r"^\s*\[\s*\d+\] (\S+)\s*$", line)
            if m:
                exports.append(m.group(1))
            elif line.strip() == "" and exports:
                in_names = False
    return imports, exports


def def_exports(path):
    names, in_exports = [], False
    for line in open(path, encoding="utf-8"):
        line = line.split(";")[0].strip()
        if line.upper() == "EXPORTS":
            in_exports = True
        elif in_exports and line:
            names.append(line.split()[0])
    return names


def main():
    x86, x64, deffile = sys.argv[1:4]
    wanted = sorted(def_exports(deffile))
    failures = []
    for arch, dll in (("x86", x86), ("x64", x64)):
        imports, exports = tables(OBJDUMP[arch], dll)
        for name in exports:
            if re.search(r"[@?]|^_", name):
                failures.append(f"{arch}: decorated export {name}")
        if sorted(exports) != wanted:
            failures.append(f"{arch}: exports {sorted(exports)} differ from the .def {wanted}")
        for name in imports:
            if name not in SYSTEM_DLLS:
                failures.append(f"{arch}: non-system import {name}")
        data = open(dll, "rb").read()
        for text in ("InternalName", "utils", "FileDescription", "Setup Utils", "OriginalFilename", "utils.dll"):
            if text.encode("utf-16-le") + b"\0\0" not in data:
                failures.append(f"{arch}: version resource lacks '{text}'")
        print(f"{arch}: {len(exports)} exports, imports {', '.join(imports)}")
    for failure in failures:
        print("FAIL:", failure)
    print(f"{0 if failures else 1} passed, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
