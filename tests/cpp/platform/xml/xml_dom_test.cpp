// What parses, what a path finds, and what nodes show of their text and children, as on the native platform.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <sstream>

namespace {

TEST(XmlDom, LoadsWhatIsWellFormedAndRefusesTheRest) {
  WCHAR const lone[] = {'<', 'r', '>', 0xD83D, '<', '/', 'r', '>', 0};
  ExpectLoad(S_OK, L"<!-- c --><?p i?><x:r a:b:c=''>\u0080\U0001F600</x:r><!-- c -->");
  std::wistringstream malformed(
      L"  |<r>|<r></R>|<r/>junk|<r/><r/>|<r>\u0001</r>|<r>a & b</r>|<r>&nbsp;</r>|<r>&#0;</r>|"
      L"<r>&#xFFFE;</r>|<r>&#xD800;</r>|<r>]]></r>|<r><!-- -- --></r>|<r a='<'/>|"
      L"<r a='1' a='2'/>|<r><?xml version='1.0'?></r>|\u00EF\u00BB\u00BF<r/>");
  for (std::wstring xml = lone; malformed; std::getline(malformed, xml, L'|'))
    ExpectLoad(S_FALSE, xml.c_str());
}

TEST(XmlDom, PathsKeepFoundAndNotFoundApart) {
  auto const document = NewDocument();
  ExpectFound(document, L"INFO", S_FALSE);
  ASSERT_EQ(Load(document, L"<INFO xmlns='urn:d' xmlns:x='urn:x'><a><c/></a><a><b>second</b></a><x:p>q</x:p>"
                           L"<b>outer</b></INFO>"),
            S_OK);
  ExpectFound(document, L"INFO/b", S_OK, L"outer");
  ExpectFound(document, L"INFO/a/b", S_OK, L"second");
  ExpectFound(document, L"INFO/x:p", S_OK, L"q");
  for (WCHAR const *path : {L"INFO/p", L"info/b", L"b"})
    ExpectFound(document, path, S_FALSE);
}

TEST(XmlDom, TextAndChildrenLeaveOutWhatIsNoContent) {
  WCHAR const *const rows[][3] = {
      {L"<r> \u00A0 a\r\nb &#32;</r>", L"\u00A0 a\nb", L"#text|"},
      {L"<r>\n <a>1</a>\n <b>2</b>\n</r>", L"1 2", L"a|b|"},
      {L"<r>0<a><b>1</b>\n \n</a><c/>\t<!--n--> <b>2</b></r>", L"01 2", L"#text|a|c|#comment|b|"},
      {L"<r>lead <b>in</b> <c>y</c> trail</r>", L"lead in y trail", L"#text|b|c|#text|"},
      {L"<r><!--n-->a<?p i?><![CDATA[<&> ]]>b</r>", L"a<&> b", L"#comment|#text|p|#cdata-section|#text|"},
      {L"<r xml:space='preserve'> <a/> </r>", L"  ", L"#text|a|#text|"},
      {L"<r xml:space='preserve'><a xml:space='default'> <b xml:space='?'> </b></a> </r>", L" ", L"a|#text|"},
      {L"<r xmlns:x='u'>&lt;&#x4E2D;&amp;&#x1F600;<x:a/></r>", L"<\u4E2D&\U0001F600", L"#text|x:a|"}};
  for (auto const &[xml, text, children] : rows)
    ExpectContent(xml, text, children);
}

} // namespace
