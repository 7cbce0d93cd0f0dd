#pragma once
// An XML document in the platform's DOM (MSXML 6.0, else 3.0, through COM):
// loaded from text with DTDs and external resources off and white space kept,
// selected with XPath and namespaces, edited, and serialised back to text.
// Nodes are also named by position ("/*[1]/*[2]", "/*[1]/text()[3]"), which
// needs no namespace and finds the same node again in a later session.

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace setup {

class XmlDocument {
public:
    class Node;  // one selected node, owned (released when it goes)
    using NodePtr = std::shared_ptr<Node>;

    XmlDocument();  // throws "Failed to create the XML document (MSXML)."
    ~XmlDocument();
    XmlDocument(const XmlDocument&) = delete;
    XmlDocument& operator=(const XmlDocument&) = delete;

    // Throws E_INVALIDARG "<reason> (line <n>, column <m>)" for text that is not well formed.
    void Load(const std::wstring& text);
    std::wstring Xml() const;
    // True when the root element holds nothing: no child, no attribute but
    // namespace declarations.
    bool RootIsEmpty() const;

    // The nodes `xpath` selects with these SelectionNamespaces; throws
    // E_INVALIDARG for an XPath that does not parse.
    std::vector<NodePtr> Select(const std::wstring& xpath, const std::wstring& namespaces);
    // The node at a positional path, or null.
    NodePtr AtPosition(const std::wstring& path);

    static std::wstring PositionOf(const NodePtr& node);
    // The positions of many nodes at once, in their order: each parent's
    // children are walked once instead of once per node.
    static std::vector<std::wstring> PositionsOf(const std::vector<NodePtr>& nodes);
    // A node found by Select, told its position (from PositionsOf), so that
    // Remove need not count its earlier siblings.
    static void SetPosition(const NodePtr& node, std::wstring path);
    static std::wstring NameOf(const NodePtr& node);
    static std::wstring XmlOf(const NodePtr& node);
    static std::optional<std::wstring> Attribute(const NodePtr& element, const std::wstring& name);
    static void SetAttribute(const NodePtr& element, const std::wstring& name, const std::wstring& value);
    static void RemoveAttribute(const NodePtr& element, const std::wstring& name);
    static std::wstring Text(const NodePtr& node);
    static void SetText(const NodePtr& node, const std::wstring& text);
    // A new element `name` (text `text`) as the parent's last child; a prefix
    // takes its namespace from `namespaces` ("p=uri ..."), no prefix the parent's.
    NodePtr AppendElement(const NodePtr& parent, const std::wstring& name, const std::wstring& text,
                          const std::wstring& namespaces);
    // The nodes of a well-formed fragment appended to the parent (unprefixed
    // names in the parent's namespace, prefixes from `namespaces`); throws
    // E_INVALIDARG when the fragment is not well formed.
    std::vector<NodePtr> AppendFragment(const NodePtr& parent, const std::wstring& xml, const std::wstring& namespaces);
    // Inserts a fragment's nodes right after the parent's element number
    // `afterElements` (0: before its first child).
    void InsertFragment(const NodePtr& parent, int afterElements, const std::wstring& xml);
    // Removes the node, with the white space that indents it when `withIndent`;
    // returns that XML and the number of element siblings before the node.
    static std::pair<std::wstring, int> Remove(const NodePtr& node, bool withIndent);
    static NodePtr Parent(const NodePtr& node);
    // True when an earlier sibling of the node is an element with the same
    // XML (name, attributes, content): what a repeat of an edit would make.
    static bool HasEarlierTwin(const NodePtr& node);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace setup
