// Reading the tree.
#include "platform/xml/XmlTree.h"

#include <algorithm>

namespace {

bool IsText(DOMNodeType type) { return type == NODE_TEXT || type == NODE_CDATA_SECTION; }

bool IsNamed(DOMNodeType type) {
  return type == NODE_ELEMENT || type == NODE_ATTRIBUTE || type == NODE_PROCESSING_INSTRUCTION;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsXmlBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && IsXmlBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

} // namespace

XmlTree::XmlTree() {
  Append(NODE_DOCUMENT, kNone);
  m_texts = std::make_unique<char[]>(1);
}

XmlTree::Index XmlTree::Append(DOMNodeType type, Index uParent) {
  if (m_uCount % kBlockSize == 0)
    m_blocks.push_back(std::make_unique_for_overwrite<Node[]>(kBlockSize));
  Index const uNode = m_uCount++;
  At(uNode) = {0, uParent, m_uCount, static_cast<std::uint8_t>(type), false, false, false};
  return uNode;
}

std::string_view XmlTree::Name(Index uNode) const {
  switch (Type(uNode)) {
  case NODE_DOCUMENT:
    return "#document";
  case NODE_TEXT:
    return "#text";
  case NODE_CDATA_SECTION:
    return "#cdata-section";
  case NODE_COMMENT:
    return "#comment";
  default:
    return TextAt(At(uNode).uText);
  }
}

std::string_view XmlTree::Value(Index uNode) const {
  if (Type(uNode) == NODE_ELEMENT)
    return {};
  std::uint32_t const uText = At(uNode).uText;
  return TextAt(IsNamed(Type(uNode)) ? uText + TextAt(uText).size() + 1 : uText);
}

std::string_view XmlTree::Text(Index uNode, std::string &store) const {
  DOMNodeType const type = Type(uNode);
  bool const bGathered = type == NODE_ELEMENT || type == NODE_DOCUMENT;
  std::string_view const text = bGathered ? GatherText(uNode, store) : Value(uNode);
  if (!bGathered && type != NODE_TEXT)
    return text;
  return At(bGathered ? uNode : At(uNode).uParent).bKeepsBlanks ? text : Trim(text);
}

/// Most elements have one text, which needs no copy.
std::string_view XmlTree::GatherText(Index uNode, std::string &store) const {
  std::string_view text;
  std::string blanks; // since the last text
  for (Index uPart = uNode + 1; uPart < At(uNode).uEnd; ++uPart) {
    if (!IsText(Type(uPart)))
      continue;
    std::string_view const part = TextAt(At(uPart).uText);
    if (At(uPart).bHidden && At(uNode).bHasElements) {
      blanks = " ";
    } else if (At(uPart).bHidden) {
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

XmlTree::Index XmlTree::SkipHidden(Index uNode, Index uParent) const {
  if (uNode < m_uCount && At(uNode).bHidden)
    uNode = At(uNode).uEnd; // never two in a row
  return uNode < m_uCount && At(uNode).uParent == uParent ? uNode : kNone;
}

XmlTree::Index XmlTree::FirstChild(Index uNode) const {
  Index uChild = uNode + 1;
  if (Type(uNode) == NODE_ELEMENT)
    while (uChild < m_uCount && Type(uChild) == NODE_ATTRIBUTE)
      ++uChild;
  return SkipHidden(uChild, uNode);
}

XmlTree::Index XmlTree::NextSibling(Index uNode) const {
  return Type(uNode) == NODE_ATTRIBUTE ? kNone : SkipHidden(At(uNode).uEnd, At(uNode).uParent);
}

XmlTree::Index XmlTree::FindAttribute(Index uElement, std::string const &name) const {
  for (Index uNode = uElement + 1; uNode < m_uCount && Type(uNode) == NODE_ATTRIBUTE; ++uNode)
    if (HasName(uNode, name))
      return uNode;
  return kNone;
}

XmlTree::Index XmlTree::FindByPath(Index uNode, std::vector<std::string> const &names) const {
  Index uParent = uNode;
  std::size_t uStep = 0;
  for (uNode = FirstChild(uParent);;) {
    if (uNode == kNone && uStep == 0)
      return kNone;
    if (uNode == kNone) { // back up, and on from there
      --uStep;
      uNode = NextSibling(uParent);
      uParent = At(uParent).uParent;
    } else if (Type(uNode) != NODE_ELEMENT || !HasName(uNode, names[uStep])) {
      uNode = NextSibling(uNode);
    } else if (++uStep == names.size()) {
      return uNode;
    } else {
      uParent = uNode;
      uNode = FirstChild(uParent);
    }
  }
}
