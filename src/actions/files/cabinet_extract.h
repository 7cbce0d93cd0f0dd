#pragma once
// Extraction of a cabinet file with the FDI functions of cabinet.dll (looked
// up at run time), into a folder of our own, every path in the "\\?\" form so
// that deep names are no limit.

#include <string>
#include <vector>

#include "runtime/unique_handle.h"

namespace setup {

// cabinet.dll, loaded at the first extraction and kept for the action's
// others: under Wine, loading a DLL that nothing in the process holds yet
// costs about 2.5 ms, as much as extracting a small cabinet.
class CabinetLibrary {
public:
    // Extracts every file of `cabinet` (and of the cabinets that continue it,
    // in the same folder) under `folder`, with their times and attributes, and
    // returns their names relative to `folder` in cabinet order, each once. A
    // name that would leave the folder is refused: nothing more is extracted
    // and it throws "Refused to extract '<name>' from cabinet '<cabinet>':
    // <why>.". Other failures throw "Failed to extract cabinet '<cabinet>':
    // <why>." ("cabinet.dll cannot be loaded", "it is not a cabinet file",
    // "the cabinet is corrupt", ...).
    std::vector<std::wstring> Extract(const std::wstring& cabinet, const std::wstring& folder);

private:
    ModuleHandle module_;
};

}  // namespace setup
