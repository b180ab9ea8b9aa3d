// The tree of a parsed XML document, in UTF-8: compact, built once by the parser, then only read, and freed as one.
// Whatever the nesting, nothing here recurses. Any number of threads may read a tree.
#pragma once

#include "platform/xml/XmlDom.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
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

  DOMNodeType Type(Index uNode) const { return static_cast<DOMNodeType>(At(uNode).type); }
  /// Names as they are written, prefix included; "#text" and the like for nodes that have none.
  std::string_view Name(Index uNode) const;
  /// Empty for an element and the document.
  std::string_view Value(Index uNode) const;
  /// The value of an attribute, a comment or a processing instruction; of others the text, that of all descendants in
  /// document order. Outer white space is trimmed unless xml:space keeps it; white space between elements counts as one
  /// blank between texts. The view is of the tree or of `store`. May throw std::bad_alloc.
  std::string_view Text(Index uNode, std::string &store) const;

  /// Attributes are no children, and neither is white space between nodes, unless xml:space keeps it.
  Index FirstChild(Index uNode) const;
  Index NextSibling(Index uNode) const;
  Index FindAttribute(Index uElement, std::string const &name) const;
  /// The first node in document order that a chain of element names leads to, from the children of `uNode` on.
  Index FindByPath(Index uNode, std::vector<std::string> const &names) const;

private:
  friend class XmlTreeBuilder;

  /// Nodes stand in document order, a node's attributes right after it and its descendants after these.
  struct Node {
    std::uint32_t uText; // where its texts start, each ended by a zero: a name, a value, or a name and a value
    Index uParent;
    Index uEnd; // the node after the last descendant
    std::uint8_t type;
    bool bKeepsBlanks; // in an element: what xml:space says for it
    bool bHasElements; // in an element: among its children
    bool bHidden;      // white space that is no child
  };
  static constexpr unsigned kBlockShift = 8;
  static constexpr Index kBlockSize = Index{1} << kBlockShift; // nodes

  Node const &At(Index uNode) const { return m_blocks[uNode >> kBlockShift][uNode & (kBlockSize - 1)]; }
  Node &At(Index uNode) { return m_blocks[uNode >> kBlockShift][uNode & (kBlockSize - 1)]; }
  /// Appends a node without descendants and text.
  Index Append(DOMNodeType type, Index uParent);
  std::string_view TextAt(std::size_t uText) const { return m_texts.get() + uText; }
  bool HasName(Index uNode, std::string const &name) const {
    return std::strcmp(m_texts.get() + At(uNode).uText, name.c_str()) == 0;
  }
  Index SkipHidden(Index uNode, Index uParent) const;
  std::string_view GatherText(Index uNode, std::string &store) const;

  std::vector<std::unique_ptr<Node[]>> m_blocks; // which never move
  Index m_uCount = 0;
  std::unique_ptr<char[]> m_texts; // as large as the document: nodes cannot hold more
};
