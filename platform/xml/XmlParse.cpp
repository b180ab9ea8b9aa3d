// Builds the tree from expat's events. Expat takes time in proportion to the document, whatever it holds, and limits
// neither nesting nor the length of a text; the memory that it may use is limited here. Any thread.

#include "platform/text/Utf8.h"
#include "platform/xml/XmlTree.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>

#include <expat.h>
#include <malloc.h>

namespace {

constexpr std::size_t kLongestDocument = 8 * 1024 * 1024; // characters
constexpr std::size_t kSmallestBlock = 64 * 1024;         // characters handed to the parser at a time
constexpr std::size_t kLongestCharacter = 4;              // bytes
constexpr std::size_t kParserMemory = 64 * 1024 * 1024;   // bytes

// --- The parser's memory -------------------------------------------------------------------------------------------

// Expat keeps some 150 bytes for each open element and 70 for each different name, which may be only a byte or two of
// the document. Its allocation functions have no context argument, but one thread parses a document from start to end.
thread_local std::size_t t_parserBytes = 0;

void *Reallocate(void *old, std::size_t size) {
  std::size_t const oldSize = malloc_usable_size(old);
  if (size > kParserMemory || t_parserBytes - oldSize > kParserMemory - size)
    return nullptr;
  void *const moved = std::realloc(old, size);
  if (moved)
    t_parserBytes += malloc_usable_size(moved) - oldSize;
  return moved;
}

void *Allocate(std::size_t size) { return Reallocate(nullptr, size); }

void Free(void *p) {
  t_parserBytes -= malloc_usable_size(p);
  std::free(p);
}

constexpr XML_Memory_Handling_Suite kMemory = {Allocate, Reallocate, Free};

// --- Text ----------------------------------------------------------------------------------------------------------

bool IsBlank(std::string_view text) { return std::all_of(text.begin(), text.end(), IsXmlBlank); }

/// Measures the text in bytes of UTF-8. False if it holds a lone surrogate, which is not an XML character.
bool MeasureUtf8(std::wstring_view text, std::size_t &size) {
  size = 0;
  for (WCHAR const *p = text.data(), *const end = text.data() + text.size(); p != end;) {
    char32_t const character = NextCharacter(p, end);
    if (IsSurrogate(character))
      return false;
    EncodeUtf8(character, [&size](char) { ++size; });
  }
  return true;
}

/// Takes up to `mostUnits` units, whole characters only, off the front of the text and encodes them. Returns: how many
/// bytes.
std::size_t TakeUtf8(std::wstring_view &text, std::size_t mostUnits, char *out) {
  char *const start = out;
  WCHAR const *p = text.data();
  WCHAR const *const blockEnd = p + std::min(mostUnits, text.size());
  WCHAR const *const end = p + text.size(); // the block's last character may need one unit more
  while (p < blockEnd)
    EncodeUtf8(NextCharacter(p, end), [&out](char c) { *out++ = c; });
  text.remove_prefix(static_cast<std::size_t>(p - text.data()));
  return static_cast<std::size_t>(out - start);
}

} // namespace

/// Turns the parser's events into nodes. A handler that runs out of memory stops the parser; none throws, since the
/// parser is written in C.
class XmlTreeBuilder {
public:
  /// For a document of `size` bytes. May throw std::bad_alloc.
  XmlTreeBuilder(XML_Parser parser, std::size_t size) : m_parser(parser), m_tree(std::make_shared<XmlTree>()) {
    m_textsSize = size + 1;
    m_tree->m_texts = std::make_unique_for_overwrite<char[]>(m_textsSize);
    Put({"\0", 1}); // the document's own
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser,
        [](void *p, XML_Char const *name, XML_Char const **attributes) {
          Handle(p, [=](XmlTreeBuilder &builder) { builder.StartElement(name, attributes); });
        },
        [](void *p, XML_Char const *) { Handle(p, [](XmlTreeBuilder &builder) { builder.EndElement(); }); });
    XML_SetCharacterDataHandler(parser, [](void *p, XML_Char const *text, int size) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddText({text, static_cast<std::size_t>(size)}); });
    });
    XML_SetCdataSectionHandler(
        parser, [](void *p) { Handle(p, [](XmlTreeBuilder &builder) { builder.OpenText(NODE_CDATA_SECTION); }); },
        [](void *p) { Handle(p, [](XmlTreeBuilder &builder) { builder.CloseText(); }); });
    XML_SetCommentHandler(parser, [](void *p, XML_Char const *text) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddLeaf(NODE_COMMENT, {text}); });
    });
    XML_SetProcessingInstructionHandler(parser, [](void *p, XML_Char const *target, XML_Char const *text) {
      Handle(p, [=](XmlTreeBuilder &builder) { builder.AddLeaf(NODE_PROCESSING_INSTRUCTION, {target, text}); });
    });
    // A document type declaration ends the parsing: no entity from the sender is ever expanded or loaded.
    XML_SetStartDoctypeDeclHandler(parser, [](void *p, XML_Char const *, XML_Char const *, XML_Char const *, int) {
      XML_StopParser(static_cast<XmlTreeBuilder *>(p)->m_parser, XML_FALSE);
    });
  }

  bool IsOutOfMemory() const { return m_isOutOfMemory; }
  std::size_t Events() const { return m_events; }
  std::shared_ptr<XmlTree const> Finish() {
    m_tree->At(XmlTree::kDocument).end = m_tree->Count();
    return std::move(m_tree);
  }

private:
  /// Runs a handler's work. The parser still reports some events after it was stopped.
  template <class Work> static void Handle(void *p, Work const &work) noexcept {
    auto &builder = *static_cast<XmlTreeBuilder *>(p);
    ++builder.m_events;
    if (builder.m_isOutOfMemory)
      return;
    try {
      work(builder);
    } catch (std::bad_alloc const &) {
      builder.m_isOutOfMemory = true;
      XML_StopParser(builder.m_parser, XML_FALSE);
    }
  }

  void StartElement(XML_Char const *name, XML_Char const **attributes) {
    m_tree->At(m_element).hasElements = true;
    bool keepsBlanks = m_tree->At(m_element).keepsBlanks;
    m_element = AddLeaf(NODE_ELEMENT, {name});
    for (; *attributes; attributes += 2) {
      AddLeaf(NODE_ATTRIBUTE, {attributes[0], attributes[1]});
      if (std::strcmp(attributes[0], "xml:space") != 0)
        continue;
      bool const isPreserved = std::strcmp(attributes[1], "preserve") == 0;
      if (isPreserved || std::strcmp(attributes[1], "default") == 0)
        keepsBlanks = isPreserved;
    }
    m_tree->At(m_element).keepsBlanks = keepsBlanks;
  }

  void EndElement() {
    CloseText();
    XmlTree::Node &element = m_tree->At(m_element);
    element.end = m_tree->Count();
    m_element = element.parent;
  }

  /// A text arrives in pieces, which become one node until another event arrives.
  void AddText(std::string_view text) {
    if (m_openText == XmlTree::kNone)
      OpenText(NODE_TEXT);
    Put(text);
  }

  void OpenText(DOMNodeType type) {
    CloseText();
    m_openText = Add(type);
  }

  void CloseText() {
    if (m_openText == XmlTree::kNone)
      return;
    XmlTree::Node &node = m_tree->At(m_openText);
    std::string_view const text(m_tree->m_texts.get() + node.text, m_used - node.text);
    node.isHidden = node.type == NODE_TEXT && !m_tree->At(node.parent).keepsBlanks && IsBlank(text);
    m_openText = XmlTree::kNone;
    Put({"\0", 1});
  }

  XmlTree::Index AddLeaf(DOMNodeType type, std::initializer_list<char const *> texts) {
    CloseText();
    XmlTree::Index const node = Add(type);
    for (char const *const text : texts)
      Put({text, std::strlen(text) + 1});
    return node;
  }

  XmlTree::Index Add(DOMNodeType type) {
    XmlTree::Index const node = m_tree->Append(type, m_element);
    m_tree->At(node).text = static_cast<std::uint32_t>(m_used);
    return node;
  }

  void Put(std::string_view text) {
    if (text.size() > m_textsSize - m_used)
      throw std::bad_alloc(); // cannot happen: nodes hold no more text than the document
    std::memcpy(m_tree->m_texts.get() + m_used, text.data(), text.size());
    m_used += text.size();
  }

  XML_Parser const m_parser;
  std::shared_ptr<XmlTree> m_tree;
  std::size_t m_textsSize = 0;
  std::size_t m_used = 0; // bytes of the texts
  XmlTree::Index m_element = XmlTree::kDocument;
  XmlTree::Index m_openText = XmlTree::kNone;
  std::size_t m_events = 0;
  bool m_isOutOfMemory = false;
};

std::shared_ptr<XmlTree const> ParseXml(std::wstring_view text) {
  std::size_t size = 0;
  if (text.size() > kLongestDocument)
    return nullptr;
  text.remove_prefix(std::min(text.find_first_not_of(L" \t\r\n\uFEFF"), text.size()));
  if (text.empty() || !MeasureUtf8(text, size))
    return nullptr;
  // The encoding that is passed here overrides the declared one.
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> const parser(
      XML_ParserCreate_MM("UTF-8", &kMemory, nullptr), XML_ParserFree);
  if (!parser)
    throw std::bad_alloc();
  XmlTreeBuilder builder(parser.get(), size);
  // The parser rescans a tag or comment that a block left unfinished. So a block without an event is followed by one of
  // twice the size: otherwise the time for a long tag would grow with the square of its length.
  for (std::size_t blockUnits = kSmallestBlock; !text.empty();) {
    std::size_t const events = builder.Events();
    std::size_t const units = std::min(blockUnits, text.size());
    auto *const buffer = static_cast<char *>(
        XML_GetBuffer(parser.get(), static_cast<int>(std::min((units + 1) * kLongestCharacter, size))));
    if (!buffer)
      throw std::bad_alloc();
    std::size_t const blockSize = TakeUtf8(text, units, buffer);
    size -= blockSize;
    if (XML_ParseBuffer(parser.get(), static_cast<int>(blockSize), text.empty()) != XML_STATUS_OK) {
      if (builder.IsOutOfMemory() || XML_GetErrorCode(parser.get()) == XML_ERROR_NO_MEMORY)
        throw std::bad_alloc();
      return nullptr;
    }
    blockUnits = builder.Events() == events ? 2 * blockUnits : kSmallestBlock;
  }
  return builder.Finish();
}
