// The tree of a parsed XML document, in UTF-8: compact, built once by the parser, then only read, and freed as a whole.
// Nothing here recurses, however deep the nesting. Any number of threads may read a tree. Knows nothing of the DOM's
// objects.
#pragma once

#include "platform/xml/XmlDom.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

constexpr bool IsXmlBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

class XmlTree {
public:
  /// Names a node of the tree.
  using Index = std::uint32_t;
  static constexpr Index kDocument = 0;
  static constexpr Index kNone = 0xFFFFFFFF;

  /// An empty document. May throw std::bad_alloc.
  XmlTree();

  DOMNodeType Type(Index node) const { return At(node).type; }
  /// The name as it is written, prefix included; "#text" and the like for nodes without one.
  std::string_view Name(Index node) const;
  /// Empty for an element and the document.
  std::string_view Value(Index node) const;
  /// The value of an attribute, a comment or a processing instruction; of others the text, that of all descendants in
  /// document order. Outer white space is trimmed unless xml:space keeps it; white space between elements counts as one
  /// blank between texts. The result points into the tree or into `store`. May throw std::bad_alloc.
  std::string_view Text(Index node, std::string &store) const;

  /// kNone if there is none. Attributes are not children; nor is white space between nodes, unless xml:space keeps it.
  Index FirstChild(Index node) const;
  Index NextSibling(Index node) const;
  Index FindAttribute(Index element, std::string const &name) const;
  /// The first node in document order at the end of a chain of element names that starts among the children of `node`.
  Index FindByPath(Index node, std::vector<std::string> const &names) const;

private:
  friend class XmlTreeBuilder;

  /// Nodes are in document order: a node's attributes come right after it and its descendants after these.
  struct Node {
    std::uint32_t text; // where its texts start, each ended by a zero: a name, a value, or a name and a value
    Index parent;
    Index end; // the node after the last descendant
    DOMNodeType type : 8;
    bool keepsBlanks; // in an element: what xml:space says for it
    bool hasElements; // in an element: among its children
    bool isHidden;    // white space that is not a child
  };
  static_assert(sizeof(Node) == 16, "a tree takes this for each node");

  Index Count() const { return static_cast<Index>(m_nodes.size()); }
  Node const &At(Index node) const { return m_nodes[node]; }
  Node &At(Index node) { return m_nodes[node]; }
  /// Appends a node without descendants and text.
  Index Append(DOMNodeType type, Index parent);
  std::string_view TextAt(std::size_t text) const { return m_texts.get() + text; }
  bool HasName(Index node, std::string const &name) const {
    return std::strcmp(m_texts.get() + At(node).text, name.c_str()) == 0;
  }
  Index SkipHidden(Index node, Index parent) const;
  std::string_view GatherText(Index node, std::string &store) const;

  std::deque<Node> m_nodes;
  std::unique_ptr<char[]> m_texts; // as large as the document, which bounds what nodes hold
};

/// Parses a document; skips leading U+FEFF and white space. Returns: null for a text that does not parse, which is not
/// well formed, holds a lone surrogate or a document type, or has more than 8 * 1024 * 1024 characters. May throw
/// std::bad_alloc, also for a document for which the parser would need more than 64 MiB.
std::shared_ptr<XmlTree const> ParseXml(std::wstring_view text);
