#include "services/xml_document.h"

#include <objbase.h>
#include <oleauto.h>
#include <msxml2.h>

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/exception.h"
#include "runtime/hresult.h"
#include "runtime/unique_handle.h"
#include "services/xml_namespaces.h"

namespace setup {

namespace {

// MinGW's msxml2.h declares the interface IDs without defining them.
constexpr IID kIidDocument2 = {0x2933BF95, 0x7B36, 0x11d2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
constexpr IID kIidElement = {0x2933BF86, 0x7B36, 0x11d2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

// Sole owner of one COM interface pointer: the library's handle owner, with
// Release as its close. Move-only, as every handle of ours.
template <class T>
struct ComTraits {
    using Type = T*;
    static Type Invalid() { return nullptr; }
    static void Close(Type p) { p->Release(); }
};

template <class T>
class ComPtr : public UniqueHandle<ComTraits<T>> {
public:
    using UniqueHandle<ComTraits<T>>::UniqueHandle;
    T* operator->() const { return this->Get(); }
    // A second owner of the same object (AddRef): for nodes kept beside the list they came from.
    ComPtr Share() const {
        if (this->Get()) this->Get()->AddRef();
        return ComPtr(this->Get());
    }
};

// Sole owner of one BSTR.
class Bstr {
public:
    Bstr() = default;
    explicit Bstr(const std::wstring& text) : b_(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    ~Bstr() { ::SysFreeString(b_); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    BSTR Get() const { return b_; }
    BSTR* Put() {
        ::SysFreeString(b_);
        b_ = nullptr;
        return &b_;
    }
    std::wstring Text() const { return b_ ? std::wstring(b_, ::SysStringLen(b_)) : std::wstring(); }

private:
    BSTR b_ = nullptr;
};

// Sole owner of one VARIANT.
class Variant {
public:
    Variant() { ::VariantInit(&v_); }
    explicit Variant(const std::wstring& text) : Variant() {
        v_.vt = VT_BSTR;
        v_.bstrVal = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    }
    explicit Variant(bool value) : Variant() {
        v_.vt = VT_BOOL;
        v_.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    }
    explicit Variant(int value) : Variant() {
        v_.vt = VT_I4;
        v_.lVal = value;
    }
    explicit Variant(IUnknown* node) : Variant() {
        v_.vt = VT_UNKNOWN;
        v_.punkVal = node;
        if (node) node->AddRef();
    }
    ~Variant() { ::VariantClear(&v_); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    VARIANT& Get() { return v_; }

private:
    VARIANT v_;
};

void Check(HRESULT hr, const std::wstring& message) {
    if (FAILED(hr)) throw Exception(hr, message);
}

}  // namespace

// The children of one node, by the node tests of positional paths: "*",
// "text()" (text and CDATA, as XPath counts them), "comment()" and "node()".
// An insertion or removal of an element keeps `elements` current and makes
// the other lists stale (indentation text may merge or go with it).
struct ChildList {
    std::vector<ComPtr<IXMLDOMNode>> elements, texts, comments, all;
    bool othersCurrent = true;
};

struct XmlDocument::State {
    bool uninitialize = false;
    ComPtr<IXMLDOMDocument2> document;
    // Children lists by their parent's positional path ("" the document), so
    // that many steps among thousands of siblings walk them once. Lists under
    // a changed node go; every change through a node without a known path
    // drops them all.
    std::map<std::wstring, ChildList> children;

    void Forget(const std::wstring& path);         // the list of `path` and every list below it
    void ForgetBelow(const std::wstring& path);    // every list below `path`, not its own
};

class XmlDocument::Node {
public:
    Node(ComPtr<IXMLDOMNode> node, State* owner, std::wstring path = {})
        : node(std::move(node)), owner(owner), path(std::move(path)) {}
    ComPtr<IXMLDOMNode> node;
    State* owner;
    std::wstring path;  // its positional path when it was found by one, else empty

    // What a change to this node's children leaves of the cached lists.
    void ChildrenChanged() const {
        if (path.empty()) owner->children.clear();
        else owner->Forget(path);
    }
};

void XmlDocument::State::ForgetBelow(const std::wstring& path) {
    const std::wstring prefix = path + L"/";
    for (auto it = children.lower_bound(prefix); it != children.end() && it->first.rfind(prefix, 0) == 0;) {
        it = children.erase(it);
    }
}

void XmlDocument::State::Forget(const std::wstring& path) {
    children.erase(path);
    ForgetBelow(path);
}

namespace {

ComPtr<IXMLDOMDocument2> NewDocument() {
    ComPtr<IXMLDOMDocument2> document;
    HRESULT hr = E_FAIL;
    for (const wchar_t* progId : {L"Msxml2.DOMDocument.6.0", L"Msxml2.DOMDocument.3.0"}) {
        CLSID clsid;
        if (FAILED(::CLSIDFromProgID(progId, &clsid))) continue;
        hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, kIidDocument2,
                                reinterpret_cast<void**>(document.Put()));
        if (SUCCEEDED(hr)) break;
    }
    Check(hr, L"Failed to create the XML document (MSXML).");
    document->put_async(VARIANT_FALSE);
    document->put_validateOnParse(VARIANT_FALSE);
    document->put_resolveExternals(VARIANT_FALSE);
    document->put_preserveWhiteSpace(VARIANT_TRUE);
    Variant xpath(std::wstring(L"XPath"));
    document->setProperty(Bstr(L"SelectionLanguage").Get(), xpath.Get());
    Variant prohibit(true);
    document->setProperty(Bstr(L"ProhibitDTD").Get(), prohibit.Get());  // MSXML 6; Wine ignores it (checked before)
    return document;
}

void LoadText(IXMLDOMDocument2* document, const std::wstring& text) {
    VARIANT_BOOL ok = VARIANT_FALSE;
    const HRESULT hr = document->loadXML(Bstr(text).Get(), &ok);
    if (SUCCEEDED(hr) && ok == VARIANT_TRUE) return;
    std::wstring why = L"it is not well-formed XML";
    ComPtr<IXMLDOMParseError> error;
    if (SUCCEEDED(document->get_parseError(error.Put())) && error) {
        Bstr reason;
        long line = 0, column = 0;
        error->get_reason(reason.Put());
        error->get_line(&line);
        error->get_linepos(&column);
        std::wstring said = reason.Text();
        while (!said.empty() && (said.back() == L'\n' || said.back() == L'\r' || said.back() == L' ')) {
            said.pop_back();
        }
        if (!said.empty()) why += L": " + said;
        why += L" (line " + std::to_wstring(line) + L", column " + std::to_wstring(column) + L")";
    }
    throw Exception(kInvalidArgument, why);
}

ComPtr<IXMLDOMNode> ParentOf(IXMLDOMNode* node) {
    ComPtr<IXMLDOMNode> parent;
    node->get_parentNode(parent.Put());
    return parent;
}

DOMNodeType TypeOf(IXMLDOMNode* node) {
    DOMNodeType type = NODE_INVALID;
    node->get_nodeType(&type);
    return type;
}

ComPtr<IXMLDOMNode> PreviousOf(IXMLDOMNode* node) {
    ComPtr<IXMLDOMNode> previous;
    if (node->get_previousSibling(previous.Put()) != S_OK) return {};
    return previous;
}

// How many earlier siblings of the node have `type` (any type: NODE_INVALID).
// Counted, since Wine hands out a new COM object for each access to a node:
// nodes cannot be told apart by identity. (The XPath engine counts
// "preceding-sibling::*" far slower: 170 ms against 1.3 ms for a node among
// 10,000, as it sorts what it selects.)
int CountBefore(IXMLDOMNode* node, DOMNodeType type) {
    int count = 0;
    for (ComPtr<IXMLDOMNode> current = PreviousOf(node); current; current = PreviousOf(current.Get())) {
        if (type == NODE_INVALID || TypeOf(current.Get()) == type) ++count;
    }
    return count;
}

ComPtr<IXMLDOMNode> NextOf(IXMLDOMNode* node) {
    ComPtr<IXMLDOMNode> next;
    if (node->get_nextSibling(next.Put()) != S_OK) return {};
    return next;
}

ChildList ListChildren(IXMLDOMNode* parent) {
    ChildList list;
    ComPtr<IXMLDOMNode> child;
    if (parent->get_firstChild(child.Put()) != S_OK) return list;
    for (; child; child = NextOf(child.Get())) {
        const DOMNodeType type = TypeOf(child.Get());
        if (type == NODE_ELEMENT) list.elements.push_back(child.Share());
        else if (type == NODE_TEXT || type == NODE_CDATA_SECTION) list.texts.push_back(child.Share());
        else if (type == NODE_COMMENT) list.comments.push_back(child.Share());
        list.all.push_back(child.Share());
    }
    return list;
}

// One step of a positional path: "/*[3]" is {"*", 3}.
struct PositionalStep {
    std::wstring test;
    std::size_t number = 0;
};

// The steps of a positional path, or nothing for any other XPath.
std::optional<std::vector<PositionalStep>> PositionalSteps(const std::wstring& path) {
    std::vector<PositionalStep> steps;
    for (std::size_t at = 0; at < path.size();) {
        if (path[at] != L'/') return std::nullopt;
        const std::size_t open = path.find(L'[', at);
        const std::size_t close = open == std::wstring::npos ? open : path.find(L']', open);
        if (close == std::wstring::npos || close == open + 1 || close - open > 10) return std::nullopt;
        PositionalStep step{path.substr(at + 1, open - at - 1), 0};
        if (step.test != L"*" && step.test != L"text()" && step.test != L"comment()" && step.test != L"node()") {
            return std::nullopt;
        }
        for (std::size_t i = open + 1; i < close; ++i) {
            if (path[i] < L'0' || path[i] > L'9') return std::nullopt;
            step.number = step.number * 10 + static_cast<std::size_t>(path[i] - L'0');
        }
        if (step.number == 0) return std::nullopt;
        steps.push_back(std::move(step));
        at = close + 1;
    }
    if (steps.empty()) return std::nullopt;
    return steps;
}

bool IsBlankText(IXMLDOMNode* node) {
    if (TypeOf(node) != NODE_TEXT) return false;
    // nodeValue, not text: MSXML trims the text of white space.
    Variant value;
    if (FAILED(node->get_nodeValue(&value.Get())) || value.Get().vt != VT_BSTR) return false;
    for (wchar_t c : std::wstring(value.Get().bstrVal, ::SysStringLen(value.Get().bstrVal))) {
        if (c != L' ' && c != L'\t' && c != L'\r' && c != L'\n') return false;
    }
    return true;
}

std::wstring NamespaceOf(IXMLDOMNode* node) {
    Bstr uri;
    node->get_namespaceURI(uri.Put());
    return uri.Text();
}

// xmlns declarations for a fragment's wrapper: the parent's default namespace
// and the row's prefixes.
std::wstring Declarations(IXMLDOMNode* parent, const std::wstring& namespaces) {
    std::wstring text;
    ComPtr<IXMLDOMElement> element;
    if (SUCCEEDED(parent->QueryInterface(kIidElement, reinterpret_cast<void**>(element.Put()))) && element) {
        Bstr prefix;
        parent->get_prefix(prefix.Put());
        if (prefix.Text().empty()) text += L" xmlns=\"" + NamespaceOf(parent) + L"\"";
    }
    if (const auto selection = SelectionNamespaces(namespaces)) {
        if (!selection->empty()) text += L" " + *selection;
    }
    return text;
}

// The children of a fragment parsed in a document of its own, under a wrapper
// that declares the namespaces it may use.
std::vector<ComPtr<IXMLDOMNode>> ParseFragment(const std::wstring& xml, const std::wstring& declarations) {
    ComPtr<IXMLDOMDocument2> scratch = NewDocument();
    try {
        LoadText(scratch.Get(), L"<setup-utils-fragment" + declarations + L">" + xml + L"</setup-utils-fragment>");
    } catch (const Exception& e) {
        throw Exception(kInvalidArgument, L"The fragment is not well formed: " + e.Message());
    }
    ComPtr<IXMLDOMElement> root;
    scratch->get_documentElement(root.Put());
    ComPtr<IXMLDOMNodeList> children;
    root->get_childNodes(children.Put());
    long count = 0;
    children->get_length(&count);
    std::vector<ComPtr<IXMLDOMNode>> nodes;
    for (long i = 0; i < count; ++i) {
        ComPtr<IXMLDOMNode> child, copy;
        children->get_item(i, child.Put());
        Check(child->cloneNode(VARIANT_TRUE, copy.Put()), L"Failed to copy a node of the fragment.");
        nodes.push_back(std::move(copy));
    }
    return nodes;
}

// A node's positional path. Elements are counted among elements, text among
// text: neighbouring white space, which merges when the file is read again,
// counts for neither.
std::wstring SinglePosition(const ComPtr<IXMLDOMNode>& node) {
    std::wstring path;
    ComPtr<IXMLDOMNode> current = node.Share();
    for (;;) {
        ComPtr<IXMLDOMNode> parent = ParentOf(current.Get());
        if (!parent) break;
        const DOMNodeType type = TypeOf(current.Get());
        const wchar_t* test = type == NODE_ELEMENT ? L"*" : type == NODE_TEXT ? L"text()" : type == NODE_COMMENT ? L"comment()" : L"node()";
        const int index = CountBefore(current.Get(), type == NODE_ELEMENT || type == NODE_TEXT || type == NODE_COMMENT ? type : NODE_INVALID);
        path = L"/" + std::wstring(test) + L"[" + std::to_wstring(index + 1) + L"]" + path;
        if (TypeOf(parent.Get()) == NODE_DOCUMENT) break;
        current = std::move(parent);
    }
    return path;
}

// Attributes that mark elements for one batch of positions; the names are
// the library's and need no namespace.
constexpr wchar_t kNodeMark[] = L"setup-utils-position-node";
constexpr wchar_t kParentMark[] = L"setup-utils-position-parent";

// The marks of one batch, taken off when it ends, also on a failure: the
// document is then as it was.
class Marks {
public:
    Marks() = default;
    Marks(const Marks&) = delete;
    Marks& operator=(const Marks&) = delete;
    ~Marks() {
        for (const auto& [element, name] : marked_) element->removeAttribute(Bstr(name).Get());
    }
    bool Set(IXMLDOMNode* node, const wchar_t* name, std::size_t value) {
        ComPtr<IXMLDOMElement> element;
        if (FAILED(node->QueryInterface(kIidElement, reinterpret_cast<void**>(element.Put()))) || !element) {
            return false;
        }
        Variant text(std::to_wstring(value));
        if (FAILED(element->setAttribute(Bstr(name).Get(), text.Get()))) return false;
        marked_.emplace_back(std::move(element), name);
        return true;
    }

private:
    std::vector<std::pair<ComPtr<IXMLDOMElement>, const wchar_t*>> marked_;
};

std::optional<std::size_t> MarkOf(IXMLDOMNode* node, const wchar_t* name) {
    ComPtr<IXMLDOMElement> element;
    if (FAILED(node->QueryInterface(kIidElement, reinterpret_cast<void**>(element.Put()))) || !element) {
        return std::nullopt;
    }
    Variant value;
    element->getAttribute(Bstr(name).Get(), &value.Get());
    if (value.Get().vt != VT_BSTR || !value.Get().bstrVal) return std::nullopt;
    std::size_t number = 0;
    for (const wchar_t* c = value.Get().bstrVal; *c; ++c) number = number * 10 + static_cast<std::size_t>(*c - L'0');
    return number;
}

// Below this many nodes, counting earlier siblings costs less than marking.
constexpr std::size_t kBatchFrom = 8;

// The positional paths of many nodes. Counting each node's earlier siblings
// is quadratic over thousands of siblings, and Wine hands out a new COM object
// for every access to a node, so nodes cannot be recognised by identity.
// Instead the elements of the batch are marked with their index, each parent
// once, and each parent's children are walked once to read the marks; the
// parents' paths come the same way, one level up.
std::vector<std::wstring> BatchPositions(const std::vector<ComPtr<IXMLDOMNode>>& nodes) {
    std::vector<std::wstring> positions(nodes.size());
    if (nodes.size() < kBatchFrom) {
        for (std::size_t i = 0; i < nodes.size(); ++i) positions[i] = SinglePosition(nodes[i]);
        return positions;
    }
    constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    std::vector<std::size_t> index(nodes.size(), kNone), parentOf(nodes.size(), kNone);
    std::vector<ComPtr<IXMLDOMNode>> parents;
    {
        Marks marks;
        std::vector<bool> marked(nodes.size(), false);
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            marked[i] = TypeOf(nodes[i].Get()) == NODE_ELEMENT && marks.Set(nodes[i].Get(), kNodeMark, i);
        }
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            if (!marked[i]) continue;
            ComPtr<IXMLDOMNode> parent = ParentOf(nodes[i].Get());
            if (!parent || TypeOf(parent.Get()) != NODE_ELEMENT) continue;
            std::optional<std::size_t> known = MarkOf(parent.Get(), kParentMark);
            if (!known) {
                known = parents.size();
                if (!marks.Set(parent.Get(), kParentMark, *known)) continue;
                std::size_t elements = 0;
                ComPtr<IXMLDOMNode> child;
                if (parent->get_firstChild(child.Put()) != S_OK) child = ComPtr<IXMLDOMNode>();
                for (; child; child = NextOf(child.Get())) {
                    if (TypeOf(child.Get()) != NODE_ELEMENT) continue;
                    if (const auto mark = MarkOf(child.Get(), kNodeMark); mark && *mark < nodes.size()) {
                        index[*mark] = elements;
                    }
                    ++elements;
                }
                parents.push_back(std::move(parent));
            }
            parentOf[i] = *known;
        }
    }
    const std::vector<std::wstring> parentPaths = BatchPositions(parents);
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        positions[i] = parentOf[i] != kNone && index[i] != kNone
                           ? parentPaths[parentOf[i]] + L"/*[" + std::to_wstring(index[i] + 1) + L"]"
                           : SinglePosition(nodes[i]);
    }
    return positions;
}

}  // namespace

XmlDocument::XmlDocument() : state_(std::make_unique<State>()) {
    const HRESULT hr = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    state_->uninitialize = SUCCEEDED(hr);
    state_->document = NewDocument();
}

XmlDocument::~XmlDocument() {
    const bool uninitialize = state_->uninitialize;
    state_.reset();
    if (uninitialize) ::CoUninitialize();
}

void XmlDocument::Load(const std::wstring& text) {
    state_->children.clear();
    LoadText(state_->document.Get(), text);
}

std::wstring XmlDocument::Xml() const {
    Bstr xml;
    Check(state_->document->get_xml(xml.Put()), L"Failed to serialise the XML document.");
    return xml.Text();
}

bool XmlDocument::RootIsEmpty() const {
    ComPtr<IXMLDOMElement> root;
    if (state_->document->get_documentElement(root.Put()) != S_OK || !root) return false;
    // White space alone counts as nothing (the serialiser indents children).
    ComPtr<IXMLDOMNode> child;
    for (root->get_firstChild(child.Put()); child;) {
        if (!IsBlankText(child.Get())) return false;
        ComPtr<IXMLDOMNode> next;
        if (child->get_nextSibling(next.Put()) != S_OK) break;
        child = std::move(next);
    }
    ComPtr<IXMLDOMNamedNodeMap> attributes;
    long count = 0;
    if (FAILED(root->get_attributes(attributes.Put())) || !attributes) return true;
    attributes->get_length(&count);
    for (long i = 0; i < count; ++i) {
        ComPtr<IXMLDOMNode> attribute;
        Bstr name;
        if (FAILED(attributes->get_item(i, attribute.Put())) || !attribute) continue;
        attribute->get_nodeName(name.Put());
        const std::wstring text = name.Text();
        if (text != L"xmlns" && text.rfind(L"xmlns:", 0) != 0) return false;
    }
    return true;
}

std::vector<XmlDocument::NodePtr> XmlDocument::Select(const std::wstring& xpath, const std::wstring& namespaces) {
    Variant selection(namespaces);
    Check(state_->document->setProperty(Bstr(L"SelectionNamespaces").Get(), selection.Get()),
          L"The namespaces '" + namespaces + L"' are not accepted.");
    ComPtr<IXMLDOMNodeList> list;
    const HRESULT hr = state_->document->selectNodes(Bstr(xpath).Get(), list.Put());
    if (FAILED(hr) || !list) throw Exception(kInvalidArgument, L"The XPath '" + xpath + L"' does not parse.");
    long count = 0;
    list->get_length(&count);
    std::vector<NodePtr> nodes;
    for (long i = 0; i < count; ++i) {
        ComPtr<IXMLDOMNode> node;
        if (SUCCEEDED(list->get_item(i, node.Put())) && node) nodes.push_back(std::make_shared<Node>(std::move(node), state_.get()));
    }
    return nodes;
}

XmlDocument::NodePtr XmlDocument::AtPosition(const std::wstring& path) {
    const auto steps = PositionalSteps(path);
    if (!steps) {
        Variant none{std::wstring()};
        state_->document->setProperty(Bstr(L"SelectionNamespaces").Get(), none.Get());
        ComPtr<IXMLDOMNode> node;
        if (path.empty() || state_->document->selectSingleNode(Bstr(path).Get(), node.Put()) != S_OK || !node) {
            return nullptr;
        }
        return std::make_shared<Node>(std::move(node), state_.get());
    }
    // Step by step through the cached children lists: the same nodes the
    // XPath finds, without walking thousands of siblings for every step.
    IXMLDOMNode* document = state_->document.Get();
    document->AddRef();
    ComPtr<IXMLDOMNode> current(document);
    std::wstring key;
    for (const PositionalStep& step : *steps) {
        auto found = state_->children.find(key);
        if (found == state_->children.end() || (step.test != L"*" && !found->second.othersCurrent)) {
            found = state_->children.insert_or_assign(key, ListChildren(current.Get())).first;
        }
        const ChildList& list = found->second;
        const auto& candidates = step.test == L"*" ? list.elements : step.test == L"text()" ? list.texts
                                 : step.test == L"comment()" ? list.comments : list.all;
        if (step.number > candidates.size()) return nullptr;
        current = candidates[step.number - 1].Share();
        key += L"/" + step.test + L"[" + std::to_wstring(step.number) + L"]";
    }
    return std::make_shared<Node>(std::move(current), state_.get(), key);
}

std::wstring XmlDocument::PositionOf(const NodePtr& node) { return SinglePosition(node->node); }

void XmlDocument::SetPosition(const NodePtr& node, std::wstring path) { node->path = std::move(path); }

std::vector<std::wstring> XmlDocument::PositionsOf(const std::vector<NodePtr>& nodes) {
    std::vector<ComPtr<IXMLDOMNode>> raw;
    raw.reserve(nodes.size());
    for (const NodePtr& node : nodes) raw.push_back(node->node.Share());
    return BatchPositions(raw);
}

std::wstring XmlDocument::NameOf(const NodePtr& node) {
    Bstr name;
    node->node->get_nodeName(name.Put());
    return name.Text();
}

namespace {

ComPtr<IXMLDOMElement> AsElement(IXMLDOMNode* node, const std::wstring& name) {
    ComPtr<IXMLDOMElement> element;
    if (FAILED(node->QueryInterface(kIidElement, reinterpret_cast<void**>(element.Put()))) || !element) {
        throw Exception(kInvalidArgument, L"The attribute '" + name + L"' belongs to an element, and the match is none.");
    }
    return element;
}

}  // namespace

std::optional<std::wstring> XmlDocument::Attribute(const NodePtr& element, const std::wstring& name) {
    Variant value;
    AsElement(element->node.Get(), name)->getAttribute(Bstr(name).Get(), &value.Get());
    if (value.Get().vt != VT_BSTR) return std::nullopt;
    return std::wstring(value.Get().bstrVal, ::SysStringLen(value.Get().bstrVal));
}

void XmlDocument::SetAttribute(const NodePtr& element, const std::wstring& name, const std::wstring& value) {
    Variant text(value);
    Check(AsElement(element->node.Get(), name)->setAttribute(Bstr(name).Get(), text.Get()),
          L"Failed to set the attribute '" + name + L"'.");
}

void XmlDocument::RemoveAttribute(const NodePtr& element, const std::wstring& name) {
    Check(AsElement(element->node.Get(), name)->removeAttribute(Bstr(name).Get()),
          L"Failed to remove the attribute '" + name + L"'.");
}

std::wstring XmlDocument::Text(const NodePtr& node) {
    Bstr text;
    node->node->get_text(text.Put());
    return text.Text();
}

void XmlDocument::SetText(const NodePtr& node, const std::wstring& text) {
    Check(node->node->put_text(Bstr(text).Get()), L"Failed to set the text of '" + NameOf(node) + L"'.");
    if (TypeOf(node->node.Get()) == NODE_ELEMENT) node->ChildrenChanged();  // its children are now one text
}

XmlDocument::NodePtr XmlDocument::AppendElement(const NodePtr& parent, const std::wstring& name,
                                                const std::wstring& text, const std::wstring& namespaces) {
    std::wstring uri = NamespaceOf(parent->node.Get());
    if (const std::size_t colon = name.find(L':'); colon != std::wstring::npos) {
        uri.clear();
        const std::wstring prefix = name.substr(0, colon) + L"=";
        for (std::size_t at = namespaces.find(prefix); at != std::wstring::npos; at = namespaces.find(prefix, at + 1)) {
            if (at == 0 || namespaces[at - 1] == L' ' || namespaces[at - 1] == L'\t') {
                const std::size_t end = namespaces.find_first_of(L" \t", at);
                uri = namespaces.substr(at + prefix.size(), end == std::wstring::npos ? std::wstring::npos
                                                                                     : end - at - prefix.size());
                break;
            }
        }
    }
    Variant type(static_cast<int>(NODE_ELEMENT));
    ComPtr<IXMLDOMNode> created, appended;
    Check(state_->document->createNode(type.Get(), Bstr(name).Get(), Bstr(uri).Get(), created.Put()),
          L"Failed to create the element '" + name + L"'.");
    if (!text.empty()) Check(created->put_text(Bstr(text).Get()), L"Failed to set the text of '" + name + L"'.");
    Check(parent->node->appendChild(created.Get(), appended.Put()), L"Failed to add the element '" + name + L"'.");
    parent->ChildrenChanged();
    return std::make_shared<Node>(std::move(appended), state_.get());
}

std::vector<XmlDocument::NodePtr> XmlDocument::AppendFragment(const NodePtr& parent, const std::wstring& xml,
                                                              const std::wstring& namespaces) {
    std::vector<NodePtr> added;
    for (const ComPtr<IXMLDOMNode>& node : ParseFragment(xml, Declarations(parent->node.Get(), namespaces))) {
        ComPtr<IXMLDOMNode> appended;
        Check(parent->node->appendChild(node.Get(), appended.Put()), L"Failed to add the fragment.");
        added.push_back(std::make_shared<Node>(std::move(appended), state_.get()));
    }
    parent->ChildrenChanged();
    return added;
}

void XmlDocument::InsertFragment(const NodePtr& parent, int afterElements, const std::wstring& xml) {
    // Right after the parent's element number `afterElements` (0: first of
    // all), found in the parent's cached children when it has them.
    const auto list = parent->path.empty() ? state_->children.end() : state_->children.find(parent->path);
    const bool listed = list != state_->children.end() && afterElements >= 0 &&
                        static_cast<std::size_t>(afterElements) <= list->second.elements.size();
    ComPtr<IXMLDOMNode> before;
    if (listed && afterElements > 0) {
        before = NextOf(list->second.elements[static_cast<std::size_t>(afterElements) - 1].Get());
    } else {
        parent->node->get_firstChild(before.Put());
        for (int seen = 0; seen < afterElements && before;) {
            if (TypeOf(before.Get()) == NODE_ELEMENT) ++seen;
            before = NextOf(before.Get());
        }
    }
    // Last node first, each before the one inserted after it: Wine merges a
    // text node inserted before another text node into it, which would put
    // the indentation behind the element.
    const std::vector<ComPtr<IXMLDOMNode>> nodes = ParseFragment(xml, Declarations(parent->node.Get(), L""));
    std::vector<ComPtr<IXMLDOMNode>> insertedElements;
    for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
        Variant reference(static_cast<IUnknown*>(before.Get()));
        if (!before) reference.Get().vt = VT_EMPTY;
        ComPtr<IXMLDOMNode> inserted;
        Check(parent->node->insertBefore(it->Get(), reference.Get(), inserted.Put()), L"Failed to insert a node.");
        if (TypeOf(inserted.Get()) == NODE_ELEMENT) insertedElements.insert(insertedElements.begin(), inserted.Share());
        before = std::move(inserted);
    }
    if (!listed) {
        parent->ChildrenChanged();
        return;
    }
    auto& elements = list->second.elements;
    elements.insert(elements.begin() + afterElements, std::make_move_iterator(insertedElements.begin()),
                    std::make_move_iterator(insertedElements.end()));
    list->second.othersCurrent = false;
    state_->ForgetBelow(parent->path);
}

std::wstring XmlDocument::XmlOf(const NodePtr& node) {
    Bstr xml;
    node->node->get_xml(xml.Put());
    return xml.Text();
}

bool XmlDocument::HasEarlierTwin(const NodePtr& node) {
    if (TypeOf(node->node.Get()) != NODE_ELEMENT) return false;
    Bstr mine;
    if (FAILED(node->node->get_xml(mine.Put()))) return false;
    for (ComPtr<IXMLDOMNode> current = PreviousOf(node->node.Get()); current; current = PreviousOf(current.Get())) {
        if (TypeOf(current.Get()) != NODE_ELEMENT) continue;
        Bstr other;
        if (SUCCEEDED(current->get_xml(other.Put())) && other.Text() == mine.Text()) return true;
    }
    return false;
}

std::pair<std::wstring, int> XmlDocument::Remove(const NodePtr& node, bool withIndent) {
    ComPtr<IXMLDOMNode> parent = ParentOf(node->node.Get());
    if (!parent) throw Exception(kInvalidArgument, L"The document itself cannot be removed.");
    Bstr xml;
    node->node->get_xml(xml.Put());
    std::wstring text = xml.Text();
    // A node found by its path knows its place among the elements.
    const std::size_t slash = node->path.rfind(L'/');
    const auto steps = slash == std::wstring::npos ? std::nullopt : PositionalSteps(node->path.substr(slash));
    const bool element = steps && steps->front().test == L"*";
    const int index = element ? static_cast<int>(steps->front().number) - 1 : CountBefore(node->node.Get(), NODE_ELEMENT);
    // The white space that indents the node goes with it (and comes back with
    // it), so that the lines around it stay as they were.
    ComPtr<IXMLDOMNode> indent = withIndent ? PreviousOf(node->node.Get()) : ComPtr<IXMLDOMNode>();
    ComPtr<IXMLDOMNode> removed;
    if (indent && IsBlankText(indent.Get())) {
        Bstr space;
        indent->get_xml(space.Put());
        text = space.Text() + text;
        Check(parent->removeChild(indent.Get(), removed.Put()), L"Failed to remove the white space before a node.");
    }
    Check(parent->removeChild(node->node.Get(), removed.Put()), L"Failed to remove '" + NameOf(node) + L"'.");
    State& state = *node->owner;
    if (!steps) {
        state.children.clear();
        return {text, index};
    }
    const std::wstring parentPath = node->path.substr(0, slash);
    const auto list = state.children.find(parentPath);
    if (list != state.children.end() && element && static_cast<std::size_t>(index) < list->second.elements.size()) {
        list->second.elements.erase(list->second.elements.begin() + index);
        list->second.othersCurrent = false;
        state.ForgetBelow(parentPath);
    } else {
        state.Forget(parentPath);
    }
    return {text, index};
}

XmlDocument::NodePtr XmlDocument::Parent(const NodePtr& node) {
    ComPtr<IXMLDOMNode> parent = ParentOf(node->node.Get());
    return parent ? std::make_shared<Node>(std::move(parent), node->owner) : nullptr;
}

}  // namespace setup
