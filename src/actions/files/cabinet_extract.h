#pragma once
// Extraction of a cabinet file with the FDI functions of cabinet.dll (looked
// up at run time), into a folder of our own, every path in the "\\?\" form so
// that deep names are no limit.

#include <string>
#include <vector>

namespace setup {

// Extracts every file of `cabinet` (and of the cabinets that continue it, in
// the same folder) under `folder`, with their times and attributes, and
// returns their names relative to `folder` in cabinet order, each once. A name
// that would leave the folder is refused: nothing more is extracted and it
// throws "Refused to extract '<name>' from cabinet '<cabinet>': <why>.". Other
// failures throw "Failed to extract cabinet '<cabinet>': <why>." ("it is not a
// cabinet file", "the cabinet is corrupt", ...).
std::vector<std::wstring> ExtractCabinet(const std::wstring& cabinet, const std::wstring& folder);

}  // namespace setup
