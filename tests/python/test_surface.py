"""The module's flat functions as a caller sees them: names, docstrings, conversions and their errors."""

import hashlib

import common

import _Skiffport

# Of the lines "name: docstring" of all functions, sorted. Callers see these names and texts, so they must not change.
DIGEST = "8cef562773268ce7ec1378ce975cfa8b5a440831ed6b28cda3e79d7b8647dc90"
SUB_INTERPRETER = """
import sys
try: import _interpreters as interpreters
except ImportError: import _xxsubinterpreters as interpreters
if sys.argv[1] == "later": import Skiffport
interpreter = interpreters.create()
interpreters.run_string(interpreter, '''
import sys
try: import Skiffport
except ImportError as error: print(error, "Skiffport" in sys.modules, flush=True)
''')
interpreters.destroy(interpreter)
import Skiffport
assert type(Skiffport.KHLoginData("1", "r", "u")) is Skiffport.KHLoginData
"""


class SurfaceTest(common.Case):
    def setUp(self):
        super().setUp()
        import Skiffport  # the proxy registers the classes, without which objects leak
        self.proxy, self.data = Skiffport, Skiffport.KHLoginData("10.5", "retail", "uuid")

    def test_the_module_has_exactly_the_documented_functions(self):
        functions = {name: value.__doc__ for name, value in vars(_Skiffport).items() if not name.startswith("__")}
        table = "\n".join(f"{name}: {text}" for name, text in sorted(functions.items()))
        self.assertEqual((hashlib.sha256(table.encode()).hexdigest(), _Skiffport.__doc__), (DIGEST, None), table)

    def test_wrong_arguments_raise(self):
        data, uploader = self.data, self.proxy.PyPresetUploader("h", "t", "1", "r", "u")
        null, where = "invalid null reference in method '{}', argument ", "in method '{}', argument "
        for exception, text, name, arguments in (
                (TypeError, "{} expected 3 arguments, got 2", "KHLoginData_LoginKestrelhub", (data, "a")),
                (TypeError, where + "2 of type 'WCHAR const *'", "KHLoginData_LoginKestrelhub", (data, b"a", 1)),
                (ValueError, null + "1 of type 'KHLoginData *'", "KHLoginData_LoginKestrelhub", (None, 1, 2)),
                (OverflowError, where + "22 of type 'int'", "PyPresetUploader_StartUpload",
                 (uploader, *[""] * 20, 2**31)),
                (TypeError, where + "2 of type 'char [_MAX_PATH]'", "KHLoginData_m_szChkServerUrl_set",
                 (data, "x" * 260)),
                (ValueError, null + "2 of type 'HINTERNET'", "KHLoginData_m_hInternet_set", (data, None)),
                (TypeError, where + "2 of type 'std::map< unsigned int,int >'", "PyPresetUploader_m_mapTID2KHID_set",
                 (uploader, {}))):
            with self.subTest(text), self.assertRaises(exception) as caught:
                getattr(_Skiffport, name)(*arguments)
            self.assertEqual(str(caught.exception), text.format(name))

    def test_members_and_strings_convert_both_ways(self):
        data = self.data
        data.m_bServerReachable = 7
        self.assertEqual(data.m_bServerReachable, 7)
        for text in ("https://h", "ä" * 129, "x" * 259, None):
            data.m_szChkServerUrl = text
            self.assertEqual(data.m_szChkServerUrl, text or "")
        data.SetKHURLAsReg("h\U0001F600\ud800x")
        self.assertEqual(data.GetServerUrl(), "h\U0001F600\ud800x")
        # A default address is complete, but without a login the host is prepended all the same.
        data.SetKHURLAsReg("h")
        self.assertEqual((data.GetSignUpURL(), data.GetTutorialURL()),
                         ("https://hhttps://www.kestrelhub.example/signUp&uuid=uuid", "https://h&uuid=uuid"))
        self.assertEqual(self.proxy.KHLoginData(None, None, None).GetUserName(), "")

    def test_a_sub_interpreter_cannot_import_it(self):
        for order in ("first", "later"):
            status, printed = self.run_python(SUB_INTERPRETER, order)
            self.assertEqual(status, 0, printed)
            self.assertRegex(printed, "(?i)^(_Skiffport works in the main interpreter only|module _Skiffport does not "
                             "support loading in subinterpreters).* False\n$")
