"""Rows for a package's tables from a text file, merged by key.

The file holds one block per table: a line "[Table]", a line naming the
columns (tab-separated), then one row per line, cells tab-separated and taken
as they stand (quotes, backslashes and brackets included; a cell cannot hold a
tab or a line break). Missing cells at the end of a row, and empty cells, are
null. Lines that begin with '#' and blank lines are skipped. A row replaces
the row of the same key, so merging a file twice changes nothing.

    [TextFile]
    TextFile	File	Text	Component_
    Header	[INSTALLDIR]app.ini		Main
"""

from pathlib import Path

import msidb

STRING, KEY = 0x0800, 0x2000


class RowsError(Exception):
    pass


def parse(text, source="rows"):
    """{table: (columns, [cells])} in file order; raises RowsError naming the line."""
    blocks = {}
    table = columns = None
    for number, line in enumerate(text.splitlines(), 1):
        where = f"{source}:{number}"
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("[") and line.endswith("]") and "\t" not in line:
            table, columns = line[1:-1].strip(), None
            if not table:
                raise RowsError(f"{where}: a table name is empty")
            blocks.setdefault(table, (None, []))
            continue
        if table is None:
            raise RowsError(f"{where}: a row before any [Table] line")
        cells = line.split("\t")
        if columns is None:
            columns = [c.strip() for c in cells]
            known, rows = blocks[table]
            if known is not None and known != columns:
                raise RowsError(f"{where}: the columns of [{table}] differ from its earlier block")
            blocks[table] = (columns, rows)
            continue
        if len(cells) > len(columns):
            raise RowsError(f"{where}: {len(cells)} cells for the {len(columns)} columns of [{table}]")
        blocks[table][1].append((where, cells + [""] * (len(columns) - len(cells))))
    for table, (columns, _) in blocks.items():
        if columns is None:
            raise RowsError(f"{source}: [{table}] has no line naming its columns")
    return blocks


def table_columns(db, table):
    """[(name, type bits)] of the package's table, in column order."""
    found = db.run("SELECT `Number`, `Name`, `Type` FROM `_Columns` WHERE `Table` = ?", [table])
    return [(name, int(kind)) for _, name, kind in sorted(found, key=lambda r: int(r[0]))]


def merge(msi, blocks):
    """Writes the rows into the package (its tables must exist); returns the count."""
    count = 0
    with msidb.Database(msi) as db:
        for table, (columns, rows) in blocks.items():
            definition = dict(table_columns(db, table))
            if not definition:
                raise RowsError(f"the package has no table {table}")
            unknown = [c for c in columns if c not in definition]
            if unknown:
                raise RowsError(f"[{table}] has no column {', '.join(unknown)}")
            keys = [c for c, kind in definition.items() if kind & KEY]
            missing = [k for k in keys if k not in columns]
            if missing:
                raise RowsError(f"[{table}] must name its key column {', '.join(missing)}")
            for where, cells in rows:
                values = []
                for column, cell in zip(columns, cells):
                    if cell == "" or definition[column] & STRING:
                        values.append(cell or None)
                    else:
                        try:
                            values.append(int(cell))
                        except ValueError:
                            raise RowsError(f"{where}: {column} of [{table}] takes a number, not '{cell}'") from None
                by_name = dict(zip(columns, values))
                if any(by_name[k] is None for k in keys):
                    raise RowsError(f"{where}: the key of a [{table}] row is empty")
                match = " AND ".join(f"`{k}` = ?" for k in keys)
                db.run(f"DELETE FROM `{table}` WHERE {match}", [by_name[k] for k in keys])
                given = [(c, v) for c, v in by_name.items() if v is not None]
                db.run(f"INSERT INTO `{table}` ({', '.join(f'`{c}`' for c, _ in given)}) "
                       f"VALUES ({', '.join('?' for _ in given)})", [v for _, v in given])
                count += 1
        db.commit()
    return count


def read(path):
    path = Path(path)
    try:
        text = path.read_text(encoding="utf-8-sig")
    except OSError as e:
        raise RowsError(f"cannot read {path}: {e.strerror}") from None
    return parse(text, path.name)
