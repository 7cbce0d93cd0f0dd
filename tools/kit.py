#!/usr/bin/env python3
"""The package author's kit, generated from its one source, packaging/kit.json.

  tools/kit.py generate   writes every generated form into packaging/
  tools/kit.py check      exits 1 when a generated file is not what kit.json gives

Generated: one IDT file per custom table (its definition), CustomAction.idt,
InstallExecuteSequence.idt and InstallUISequence.idt (the recommended rows),
Error.idt (the library's error texts), _Validation.idt (rows for every custom
column) and setup-utils.sql. tools/add-setup-utils merges the same rows into
an existing package. There is no WiX source form: wixl compiles custom action
types wrongly (rollback and commit actions lose their bits, immediate ones
gain 0x800, HideTarget is dropped) and misplaces Before/After scheduling, so
the one route for WiX products is to compile the product as it is and run
tools/add-setup-utils on the .msi.
"""

import json
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
KIT = ROOT / "packaging"
SOURCE = KIT / "kit.json"

# Custom action type bits (Windows Installer).
DEFERRED, ROLLBACK, COMMIT, NO_IMPERSONATE, HIDE_TARGET = 0x400, 0x100, 0x200, 0x800, 0x2000


def msiinfo_export(msi, table):
    """`msiinfo export` of one table (a CompletedProcess). It writes the streams
    of a binary table into the current folder, so it runs in a scratch one."""
    import subprocess
    import tempfile
    with tempfile.TemporaryDirectory(prefix="msiinfo-") as scratch:
        return subprocess.run(["msiinfo", "export", str(Path(msi).resolve()), table], capture_output=True, text=True,
                              cwd=scratch)


def load():
    return json.loads(SOURCE.read_text(encoding="utf-8"))


def idt(header, rows):
    return "".join("\t".join(line) + "\r\n" for line in header + rows)


def table_idt(name, table):
    cols = table["columns"]
    keys = [c["name"] for c in cols if c.get("key")]
    return idt([[c["name"] for c in cols], [c["type"] for c in cols], [name] + keys], [])


def action_rows(kit, names=None):
    return [[a["name"], str(a["type"]), kit["binary"], a.get("entry", a["name"])] for a in kit["actions"]
            if names is None or a["name"] in names]


def sequence_rows(kit, ui=False, names=None):
    return [[a["name"], a.get("condition", ""), str(a["sequence"])] for a in kit["actions"]
            if "sequence" in a and (not ui or a.get("ui")) and (names is None or a["name"] in names)]


def error_rows(kit):
    return [[str(e["number"]), e["message"]] for e in kit["errors"]]


def validation_rows(kit, tables=None):
    rows = []
    for name, table in kit["tables"].items():
        if tables is not None and name not in tables:
            continue
        for c in table["columns"]:
            nullable = "Y" if c["type"][0].isupper() else "N"
            integer = c["type"][0] in "iI"
            low, high = ("-2147483647", "2147483647") if integer and c["type"][1:] == "4" else \
                ("-32767", "32767") if integer else ("", "")
            rows.append([name, c["name"], nullable, low, high, c.get("keyTable", ""), str(c.get("keyColumn", "")),
                         c.get("category", ""), "", c.get("description", "")])
    return rows


VALIDATION_HEADER = [["Table", "Column", "Nullable", "MinValue", "MaxValue", "KeyTable", "KeyColumn", "Category",
                      "Set", "Description"],
                     ["s32", "s32", "s4", "I4", "I4", "S255", "I2", "S32", "S255", "S255"],
                     ["_Validation", "Table", "Column"]]


def sql_type(idt_type):
    """The CREATE TABLE column type of an IDT column type."""
    kind, size = idt_type[0], int(idt_type[1:] or 0)
    if kind in "sSlL":
        text = "LONGCHAR" if size == 0 else f"CHAR({size})"
        return text + ("" if kind.isupper() else " NOT NULL") + (" LOCALIZABLE" if kind in "lL" else "")
    if kind in "iI":
        return ("SHORT" if size == 2 else "LONG") + ("" if kind == "I" else " NOT NULL")
    if kind in "vV":
        return "OBJECT" + ("" if kind == "V" else " NOT NULL")
    raise ValueError(f"unknown column type {idt_type}")


def create_table_sql(name, table):
    cols = ", ".join(f"`{c['name']}` {sql_type(c['type'])}" for c in table["columns"])
    keys = ", ".join(f"`{c['name']}`" for c in table["columns"] if c.get("key"))
    return f"CREATE TABLE `{name}` ({cols} PRIMARY KEY {keys})"


def quote(value):
    # msibuild's SQL knows no escape for a quote inside a string: the kit has none.
    if "'" in value:
        raise SystemExit(f"kit: a kit text holds a quote: {value}")
    return "'" + value + "'"


def insert(table, columns, row, integers=()):
    """INSERT of the non-empty cells (msibuild's SQL has no NULL literal; an omitted cell is null)."""
    cells = [(c, v if c in integers else quote(v)) for c, v in zip(columns, row) if v != ""]
    names = ", ".join(f"`{c}`" for c, _ in cells)
    return f"INSERT INTO `{table}` ({names}) VALUES ({', '.join(v for _, v in cells)})"


def merge_sql(kit):
    """Every statement a package needs for the whole kit, one per line, for
    tools other than tools/add-setup-utils (which skips rows that exist)."""
    lines = ["-- Generated from packaging/kit.json by tools/kit.py: do not edit.",
             "-- One statement per line; an INSERT fails where the package has the row already."]
    lines += [create_table_sql(name, table) for name, table in kit["tables"].items()]
    lines += [insert("CustomAction", ["Action", "Type", "Source", "Target"], r, ["Type"]) for r in action_rows(kit)]
    for table, ui in (("InstallExecuteSequence", False), ("InstallUISequence", True)):
        lines += [insert(table, ["Action", "Condition", "Sequence"], r, ["Sequence"]) for r in sequence_rows(kit, ui)]
    lines += [insert("Error", ["Error", "Message"], r, ["Error"]) for r in error_rows(kit)]
    lines += [insert("_Validation", VALIDATION_HEADER[0], r, ["MinValue", "MaxValue", "KeyColumn"])
              for r in validation_rows(kit)]
    return "\n".join(lines) + "\n"


def generated(kit):
    """Every generated file: path relative to packaging/ -> content."""
    files = {f"{name}.idt": table_idt(name, table) for name, table in kit["tables"].items()}
    files["CustomAction.idt"] = idt([["Action", "Type", "Source", "Target"], ["s72", "i2", "S72", "S255"],
                                     ["CustomAction", "Action"]], action_rows(kit))
    for table, ui in (("InstallExecuteSequence", False), ("InstallUISequence", True)):
        files[f"{table}.idt"] = idt([["Action", "Condition", "Sequence"], ["s72", "S255", "I2"], [table, "Action"]],
                                    sequence_rows(kit, ui))
    files["Error.idt"] = idt([["Error", "Message"], ["i2", "L0"], ["Error", "Error"]], error_rows(kit))
    files["_Validation.idt"] = idt(VALIDATION_HEADER, validation_rows(kit))
    files["setup-utils.sql"] = merge_sql(kit)
    return files


def main(argv):
    kit = load()
    files = generated(kit)
    if argv[:1] == ["generate"]:
        for rel, text in files.items():
            path = KIT / rel
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(text.encode("utf-8"))
        return 0
    if argv[:1] == ["check"]:
        stale = [rel for rel, text in files.items()
                 if not (KIT / rel).exists() or (KIT / rel).read_bytes() != text.encode("utf-8")]
        for rel in stale:
            print(f"kit: packaging/{rel} is not what packaging/kit.json gives; run tools/kit.py generate")
        return 1 if stale else 0
    print(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
