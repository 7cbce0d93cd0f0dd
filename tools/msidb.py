"""A package database through msitools' own library (libmsi, by ctypes), for
what msibuild's SQL text cannot carry: values with quotes, tabs or line
breaks go in as query parameters, never inside the SQL."""

import ctypes
import ctypes.util

_msi = ctypes.CDLL(ctypes.util.find_library("msi") or "libmsi.so.0")
_gobject = ctypes.CDLL(ctypes.util.find_library("gobject-2.0") or "libgobject-2.0.so.0")
_glib = ctypes.CDLL(ctypes.util.find_library("glib-2.0") or "libglib-2.0.so.0")

_msi.libmsi_database_new.restype = ctypes.c_void_p
_msi.libmsi_database_new.argtypes = [ctypes.c_char_p, ctypes.c_uint, ctypes.c_char_p, ctypes.c_void_p]
_msi.libmsi_database_commit.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
_msi.libmsi_query_new.restype = ctypes.c_void_p
_msi.libmsi_query_new.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
_msi.libmsi_query_execute.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p]
_msi.libmsi_query_fetch.restype = ctypes.c_void_p
_msi.libmsi_query_fetch.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
_msi.libmsi_query_close.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
_msi.libmsi_record_new.restype = ctypes.c_void_p
_msi.libmsi_record_new.argtypes = [ctypes.c_uint]
_msi.libmsi_record_set_string.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_char_p]
_msi.libmsi_record_set_int.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_int]
_msi.libmsi_record_get_string.restype = ctypes.c_void_p
_msi.libmsi_record_get_string.argtypes = [ctypes.c_void_p, ctypes.c_uint]
_msi.libmsi_record_get_field_count.restype = ctypes.c_uint
_msi.libmsi_record_get_field_count.argtypes = [ctypes.c_void_p]
_gobject.g_object_unref.argtypes = [ctypes.c_void_p]
_glib.g_free.argtypes = [ctypes.c_void_p]

TRANSACT = 4


class _GError(ctypes.Structure):
    _fields_ = [("domain", ctypes.c_uint32), ("code", ctypes.c_int), ("message", ctypes.c_char_p)]


class MsiError(Exception):
    pass


def _call(function, *args, what):
    error = ctypes.POINTER(_GError)()
    result = function(*args, ctypes.byref(error))
    if error:
        raise MsiError(f"{what}: {error.contents.message.decode('utf-8', 'replace')}")
    if not result:
        raise MsiError(what)
    return result


class Database:
    """Opened for changes; commit() writes them, close() drops what was not committed."""

    def __init__(self, path):
        self._db = _call(_msi.libmsi_database_new, str(path).encode(), TRANSACT, None,
                         what=f"cannot open the package {path}")

    def run(self, sql, params=()):
        """Runs `sql` with `params` (str, int or None for a null) for its '?'s;
        returns the fetched rows as lists of strings."""
        query = _call(_msi.libmsi_query_new, self._db, sql.encode(), what=f"the query does not parse: {sql}")
        record = None
        try:
            if params:
                record = _msi.libmsi_record_new(len(params))
                for i, value in enumerate(params, 1):
                    if isinstance(value, int):
                        _msi.libmsi_record_set_int(record, i, value)
                    elif value is not None:
                        _msi.libmsi_record_set_string(record, i, value.encode())
            _call(_msi.libmsi_query_execute, query, record, what=f"the query failed: {sql}")
            rows = []
            if sql.lstrip().upper().startswith("SELECT"):
                while True:
                    error = ctypes.POINTER(_GError)()
                    row = _msi.libmsi_query_fetch(query, ctypes.byref(error))
                    if not row:
                        break
                    cells = []
                    for field in range(1, _msi.libmsi_record_get_field_count(row) + 1):
                        text = _msi.libmsi_record_get_string(row, field)
                        cells.append(ctypes.string_at(text).decode() if text else "")
                        if text:
                            _glib.g_free(text)
                    _gobject.g_object_unref(row)
                    rows.append(cells)
            return rows
        finally:
            if record:
                _gobject.g_object_unref(record)
            error = ctypes.POINTER(_GError)()
            _msi.libmsi_query_close(query, ctypes.byref(error))
            _gobject.g_object_unref(query)

    def commit(self):
        _call(_msi.libmsi_database_commit, self._db, what="cannot write the package")

    def close(self):
        if self._db:
            _gobject.g_object_unref(self._db)
            self._db = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
