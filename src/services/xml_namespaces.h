#pragma once
// Namespace declarations for XPath selections and new XML nodes, from the
// "prefix=uri prefix=uri" text that tables carry (portable).

#include <optional>
#include <string>
#include <string_view>

namespace setup {

// "a=urn:x b=urn:y" as MSXML's SelectionNamespaces: "xmlns:a='urn:x' xmlns:b='urn:y'".
// Nothing when a pair is not prefix=uri (or the uri holds a quote).
std::optional<std::wstring> SelectionNamespaces(std::wstring_view namespaces);

}  // namespace setup
