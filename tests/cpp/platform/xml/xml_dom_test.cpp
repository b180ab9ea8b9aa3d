// What parses, what a path finds, and what nodes show of their text and children, as on the native platform.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <sstream>

std::wstring const kNone = std::to_wstring(S_FALSE);

TEST(XmlDom, RefusesWhatIsMalformed) {
  WCHAR const lone[] = {'<', 'r', '>', 0xD83D, '<', '/', 'r', '>', 0};
  std::wistringstream malformed(
      L"  |<r>|<r></R>|<r/>junk|<r/><r/>|<r>\u0001</r>|<r>a & b</r>|<r>&nbsp;</r>|<r>&#0;</r>|"
      L"<r>&#xFFFE;</r>|<r>&#xD800;</r>|<r>]]></r>|<r><!-- -- --></r>|<r a='<'/>|"
      L"<r a='1' a='2'/>|<r><?xml version='1.0'?></r>|\u00EF\u00BB\u00BF<r/>");
  for (std::wstring xml = lone; malformed; std::getline(malformed, xml, L'|'))
    EXPECT_EQ(Loaded(xml.c_str()), kNone) << testing::PrintToString(xml);
}

TEST(XmlDom, PathsKeepFoundAndNotFoundApart) {
  HRESULT hr = S_OK;
  EXPECT_EQ(Find(Load(L"<", hr), L"INFO"), kNone);
  auto const document = Load(L"<INFO xmlns='urn:d' xmlns:x='urn:x'><a><c/></a><a><b>second</b></a><x:p>q</x:p>"
                             L"<b>outer</b></INFO>",
                             hr);
  EXPECT_EQ(Find(document, L"INFO/b") + Find(document, L"INFO/a/b") + Find(document, L"INFO/x:p"), L"outersecondq");
  for (WCHAR const *path : {L"INFO/p", L"info/b", L"b"})
    EXPECT_EQ(Find(document, path), kNone);
}

TEST(XmlDom, TextAndChildrenLeaveOutWhatIsNoContent) {
  std::pair<WCHAR const *, WCHAR const *> const rows[] = {
      {L"<x:r a:b:c=''>\u0080\U0001F600</x:r><!-- c -->", L"\u0080\U0001F600|#text|"},
      {L"<r> \u00A0 a\r\nb &#32;</r>", L"\u00A0 a\nb|#text|"},
      {L"<r>\n <a>1</a>\n <b>2</b>\n</r>", L"1 2|a|b|"},
      {L"<r>0<a><b>1</b>\n \n</a><c/>\t<!--n--> <b>2</b></r>", L"01 2|#text|a|c|#comment|b|"},
      {L"<r>lead <b>in</b> <c>y</c> trail</r>", L"lead in y trail|#text|b|c|#text|"},
      {L"<r><!--n-->a<?p i?><![CDATA[<&> ]]>b</r>", L"a<&> b|#comment|#text|p|#cdata-section|#text|"},
      {L"<r xml:space='preserve'> <a/> </r>", L"  |#text|a|#text|"},
      {L"<r xml:space='preserve'><a xml:space='default'> <b xml:space='?'> </b></a> </r>", L" |a|#text|"},
      {L"<r xmlns:x='u'>&lt;&#x4E2D;&amp;&#x1F600;<x:a/></r>", L"<\u4E2D&\U0001F600|#text|x:a|"}};
  for (auto const &[xml, shown] : rows)
    EXPECT_EQ(Loaded(xml), shown) << testing::PrintToString(xml);
}
