#include "platform/xml/XmlTree.h"

#include "platform/text/Characters.h"

#include <algorithm>

namespace {

bool IsText(DOMNodeType type) { return type == NODE_TEXT || type == NODE_CDATA_SECTION; }

bool IsNamed(DOMNodeType type) {
  return type == NODE_ELEMENT || type == NODE_ATTRIBUTE || type == NODE_PROCESSING_INSTRUCTION;
}

} // namespace

XmlTree::XmlTree() {
  Append(NODE_DOCUMENT, kNone);
  m_texts = std::make_unique<char[]>(1);
}

XmlTree::Index XmlTree::Append(DOMNodeType type, Index parent) {
  m_nodes.push_back({0, parent, Count() + 1, type, false, false, false});
  return Count() - 1;
}

std::string_view XmlTree::Name(Index node) const {
  switch (Type(node)) {
  case NODE_DOCUMENT:
    return "#document";
  case NODE_TEXT:
    return "#text";
  case NODE_CDATA_SECTION:
    return "#cdata-section";
  case NODE_COMMENT:
    return "#comment";
  default:
    return TextAt(At(node).text);
  }
}

std::string_view XmlTree::Value(Index node) const {
  if (Type(node) == NODE_ELEMENT)
    return {};
  std::uint32_t const start = At(node).text;
  return TextAt(IsNamed(Type(node)) ? start + TextAt(start).size() + 1 : start);
}

std::string_view XmlTree::Text(Index node, std::string &store) const {
  DOMNodeType const type = Type(node);
  bool const isGathered = type == NODE_ELEMENT || type == NODE_DOCUMENT;
  std::string_view const text = isGathered ? GatherText(node, store) : Value(node);
  if (!isGathered && type != NODE_TEXT)
    return text;
  return At(isGathered ? node : At(node).parent).keepsBlanks ? text : Trim(text, IsXmlBlank);
}

/// Returns the only text of an element, as most have, without a copy.
std::string_view XmlTree::GatherText(Index node, std::string &store) const {
  std::string_view text;
  std::string blanks; // since the last text
  for (Index partNode = node + 1; partNode < At(node).end; ++partNode) {
    if (!IsText(Type(partNode)))
      continue;
    std::string_view const part = TextAt(At(partNode).text);
    if (At(partNode).isHidden && At(node).hasElements) {
      blanks = " ";
    } else if (At(partNode).isHidden) {
      blanks.append(part);
    } else if (text.empty()) {
      text = part;
      blanks.clear();
    } else {
      if (text.data() != store.data())
        store.assign(text);
      text = store.append(blanks).append(part);
      blanks.clear();
    }
  }
  return text;
}

XmlTree::Index XmlTree::SkipHidden(Index node, Index parent) const {
  if (node < Count() && At(node).isHidden)
    node = At(node).end; // never two in a row
  return node < Count() && At(node).parent == parent ? node : kNone;
}

XmlTree::Index XmlTree::FirstChild(Index node) const {
  Index child = node + 1;
  if (Type(node) == NODE_ELEMENT)
    while (child < Count() && Type(child) == NODE_ATTRIBUTE)
      ++child;
  return SkipHidden(child, node);
}

XmlTree::Index XmlTree::NextSibling(Index node) const {
  return Type(node) == NODE_ATTRIBUTE ? kNone : SkipHidden(At(node).end, At(node).parent);
}

XmlTree::Index XmlTree::FindAttribute(Index element, std::string const &name) const {
  for (Index node = element + 1; node < Count() && Type(node) == NODE_ATTRIBUTE; ++node)
    if (HasName(node, name))
      return node;
  return kNone;
}

XmlTree::Index XmlTree::FindByPath(Index node, std::vector<std::string> const &names) const {
  // A depth-first search: `step` names are matched by the elements from the start down to `parent`.
  Index parent = node;
  std::size_t step = 0;
  node = FirstChild(parent);
  while (node != kNone || step != 0) {
    if (node == kNone) { // no child matched: go on after the parent
      --step;
      node = NextSibling(parent);
      parent = At(parent).parent;
    } else if (Type(node) != NODE_ELEMENT || !HasName(node, names[step])) {
      node = NextSibling(node);
    } else if (++step == names.size()) {
      return node;
    } else {
      parent = node;
      node = FirstChild(parent);
    }
  }
  return kNone;
}
