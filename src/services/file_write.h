#pragma once
// Files this library creates or writes, without ever following a link.
//
// A target is refused when it is a reparse point (a symbolic link or a
// junction), checked on the path and again on the opened handle, which is
// opened with FILE_FLAG_OPEN_REPARSE_POINT: a planted link never redirects a
// write, a truncation or a backup to a file outside the folder it names. New
// files (staging copies, backups) are created exclusively (CREATE_NEW), staging
// files under unguessable names: whatever already exists at a name, a link
// included, is never opened.
//
// Wine 8 shows a host's symbolic link to a folder as a reparse point, but
// follows a link to a file without saying so; on Wine only the first kind can
// be refused (the tests use it).

#include <string>
#include <string_view>
#include <vector>

#include "runtime/unique_handle.h"

namespace setup {

// Throws E_INVALIDARG "Refused to write '<path>': <why>." for a path that is
// not absolute or holds characters no path can hold (see PathProblem).
void CheckWritablePath(std::wstring_view path);

// Throws "Refused to write '<path>': it is a link (reparse point)." when
// `path` exists and is a reparse point.
void CheckNotLink(std::wstring_view path);

// Writes `text` into `path` (created, or its content replaced) as UTF-16LE
// with a byte-order mark; each line feed becomes one CR LF (carriage returns
// in the text are dropped first). Throws "Refused to write '<path>': it is a
// link (reparse point)." or "Failed to write file '<path>'." with the error.
void WriteUtf16File(std::wstring_view path, std::wstring_view text);

// Appends `text` to `path` as UTF-16LE (created with a byte-order mark when
// it is new or empty; each line feed becomes CR LF). Throws "Refused to write
// '<path>': it is a link (reparse point)." or "Failed to write file '<path>'.".
void AppendUtf16File(std::wstring_view path, std::wstring_view text);

// A new empty file, created exclusively and still open for writing.
struct NewFile {
    std::wstring path;
    FileHandle handle;
};

// Creates "<directory>\<prefix><32 hex digits>.tmp". A name that is taken
// (by anything, a link included) is passed over for a fresh one, a few times.
// Throws "Failed to get temp file '<directory>\<prefix>'." with the error.
NewFile CreateStagingFile(std::wstring_view directory, std::wstring_view prefix);

// Writes the text of WriteUtf16File into a file opened by CreateStagingFile.
// Throws "Failed to write file '<path>'.".
void WriteUtf16(const NewFile& file, std::wstring_view text);

// Creates `destination` exclusively and copies into it the bytes, times and
// attributes of `source`, which must not be a reparse point. Logs
// "Copy file '<source>' -> '<destination>'."; throws "Failed to copy file
// '<source>' -> '<destination>'." (a partial copy is deleted again).
void CopyToNewFile(std::wstring_view source, std::wstring_view destination);

// Makes the existing file `destination` hold the bytes, times and attributes
// of `source` by writing into it: the file keeps its identity, its security
// descriptor, its other streams and its hard links (a rename over it would
// replace all four). Both are refused when they are links (checked on the
// opened handles). Throws "Failed to copy file '<source>' -> '<destination>'."
// or the refusal; the destination may then hold part of the bytes.
void CopyIntoExistingFile(std::wstring_view source, std::wstring_view destination);

// Writes `bytes` into `path` (created, or its content replaced in place), the
// link check made on the opened handle. Throws "Refused to write '<path>': it
// is a link (reparse point)." or "Failed to write file '<path>'.".
void WriteFileBytes(std::wstring_view path, const std::vector<unsigned char>& bytes);

// Appends the warnings of rows that continue on error, one per line, to the
// installation's warnings file (the InstallationWarningsFilePath property);
// without one, says that they are in the log only. Never throws.
void WriteWarnings(const std::wstring& file, const std::vector<std::wstring>& warnings);

}  // namespace setup
