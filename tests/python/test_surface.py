"""The module's flat functions as a caller sees them: names, docstrings, conversions and their errors, out of memory."""

import os
import unittest

import common

import _Skiffport

DOCUMENTED = """\
new_KHLoginData(WCHAR const * wszProdVersion, WCHAR const * wszVersionType, WCHAR const * wszUUID) -> KHLoginData
delete_KHLoginData(KHLoginData self)
KHLoginData_LoginKestrelhub(KHLoginData self, WCHAR const * wszUserName, WCHAR const * wszPassword) -> UINT
KHLoginData_LogoutKestrelhub(KHLoginData self)
KHLoginData_InitKHServerURL(KHLoginData self)
KHLoginData_SetKHURLAsReg(KHLoginData self, WCHAR * wszKHURL)
KHLoginData_GetRevisionAPI(KHLoginData self) -> PyObject *
KHLoginData_GetUserName(KHLoginData self) -> PyObject *
KHLoginData_GetUserProfileURL(KHLoginData self) -> PyObject *
KHLoginData_GetVideoGalleryURL(KHLoginData self) -> PyObject *
KHLoginData_GetServerUrl(KHLoginData self) -> PyObject *
KHLoginData_GetLoginTokenID(KHLoginData self) -> PyObject *
KHLoginData_GetSignUpURL(KHLoginData self) -> PyObject *
KHLoginData_GetForgetPasswordURL(KHLoginData self) -> PyObject *
KHLoginData_GetTutorialURL(KHLoginData self) -> PyObject *
KHLoginData_GetPresetCategory(KHLoginData self, WCHAR const * wszLocationID) -> PyObject *
KHLoginData_GetCategroyName(KHLoginData self, int nCategroyIndex, CString & strCategroy) -> BOOL
KHLoginData_GetCategoryCount(KHLoginData self) -> int
KHLoginData_SetRelateVideo(KHLoginData self, WCHAR const * wszVideoURL, WCHAR const * wszWebsite, \
WCHAR const * wszVideoInfo) -> PyObject *
KHLoginData_GetPresetDownloadURL(KHLoginData self) -> PyObject *
KHLoginData_GetEffectByGUID(KHLoginData self, WCHAR const * wszPresetGUID) -> PyObject *
KHLoginData_m_hInternet_set(KHLoginData self, HINTERNET m_hInternet)
KHLoginData_m_hInternet_get(KHLoginData self) -> HINTERNET
KHLoginData_m_hConnect_set(KHLoginData self, HINTERNET m_hConnect)
KHLoginData_m_hConnect_get(KHLoginData self) -> HINTERNET
KHLoginData_m_hRequest_set(KHLoginData self, HINTERNET m_hRequest)
KHLoginData_m_hRequest_get(KHLoginData self) -> HINTERNET
KHLoginData_m_bServerReachable_set(KHLoginData self, BOOL m_bServerReachable)
KHLoginData_m_bServerReachable_get(KHLoginData self) -> BOOL
KHLoginData_m_szChkServerUrl_set(KHLoginData self, char [_MAX_PATH] m_szChkServerUrl)
KHLoginData_m_szChkServerUrl_get(KHLoginData self) -> char [_MAX_PATH]
new_KHConnectUtil() -> KHConnectUtil
delete_KHConnectUtil(KHConnectUtil self)
KHConnectUtil_SyncSendHttpRequest(KHConnectUtil self, WCHAR const * wszHost, int nPort, WCHAR const * wszPath, \
WCHAR const * wszParam, WCHAR const * wszHeader) -> PyObject *
KHConnectUtil_SyncSendHttpRequestParam(KHConnectUtil self, WCHAR const * wszHost, int nPort, WCHAR const * wszPath, \
WCHAR const * wszParam) -> PyObject *
new_PyPresetUploader(wchar_t const * szKHServerUrl, wchar_t const * szKHLoginTokenID, wchar_t const * szProdVersion, \
wchar_t const * szVersionType, wchar_t const * szUUID) -> PyPresetUploader
delete_PyPresetUploader(PyPresetUploader self)
PyPresetUploader_SetCallback(PyPresetUploader self, PyObject * callback) -> BOOL
PyPresetUploader_StartUpload(PyPresetUploader self, wchar_t const * szEffectFilePath, \
wchar_t const * szEffectCoverFilePathAfter, wchar_t const * szEffectCoverFilePathBefore, \
wchar_t const * szEffectThumbnailAfter, wchar_t const * szEffectThumbnailBefore, wchar_t const * szEffectCurveRGBImg, \
wchar_t const * szEffectCurveRImg, wchar_t const * szEffectCurveGImg, wchar_t const * szEffectCurveBImg, \
wchar_t const * szEffectLvRGBImg, wchar_t const * szEffectLvRImg, wchar_t const * szEffectLvGImg, \
wchar_t const * szEffectLvBImg, wchar_t const * szTemplateKey, wchar_t const * szTitle, wchar_t const * szCategory, \
wchar_t const * szTags, wchar_t const * szDescription, wchar_t const * szCollections, wchar_t const * szPIPtype, \
int nKHID) -> UINT
PyPresetUploader_CancelUpload(PyPresetUploader self)
PyPresetUploader_GetUploadedFileUrl(PyPresetUploader self) -> PyObject *
PyPresetUploader_m_mapTID2KHID_set(PyPresetUploader self, std::map< unsigned int,int > m_mapTID2KHID)
PyPresetUploader_m_mapTID2KHID_get(PyPresetUploader self) -> std::map< unsigned int,int >
""".splitlines()
# Exhausts the memory with copies. After the limit is set, the script itself allocates nothing.
OUT_OF_MEMORY = """
import os, resource, sys, _Skiffport, Skiffport
from skiffhost import loop
data, uploader = Skiffport.KHLoginData("1", "r", "u"), Skiffport.PyPresetUploader("no-host:1", "", "1", "r", "u")
for _ in range(20):  # each adds a pair
    assert uploader.StartUpload(*[sys.argv[1]] * 13, *[""] * 7, 1)
    numbers = uploader.m_mapTID2KHID
    loop.wait(), loop.pump()
    uploader.m_mapTID2KHID = numbers
outcomes = 0
resource.setrlimit(resource.RLIMIT_AS, (0, 0))
try:
    while True: _Skiffport.KHLoginData_m_hInternet_get(data).disown()
except MemoryError: outcomes += 1
try:
    while True: _Skiffport.PyPresetUploader_m_mapTID2KHID_get(uploader).disown()
except MemoryError: outcomes += 1
try: _Skiffport.PyPresetUploader_m_mapTID2KHID_set(uploader, numbers)
except MemoryError: outcomes += 1
os._exit(outcomes)
"""
CLASSES = ("KHLoginData", "KHConnectUtil", "PyPresetUploader")


class SurfaceTest(common.Case):
    def setUp(self):
        import Skiffport  # the proxy registers the classes, without which objects leak
        self.proxy = Skiffport
        self.data = Skiffport.KHLoginData("10.5", "retail", "uuid")

    def test_the_module_has_exactly_the_documented_functions(self):
        functions = {name: value for name, value in vars(_Skiffport).items() if not name.startswith("__")}
        undocumented = {f"{name}_{end}" for name in CLASSES for end in ("swigregister", "swiginit")}
        self.assertEqual(set(functions), {line.split("(")[0] for line in DOCUMENTED} | undocumented)
        self.assertEqual({functions[line.split("(")[0]].__doc__ for line in DOCUMENTED}, set(DOCUMENTED))
        self.assertEqual({functions[name].__doc__ for name in undocumented}, {None})
        self.assertIsNone(_Skiffport.__doc__)

    def test_wrong_arguments_raise(self):
        data, uploader = self.data, self.proxy.PyPresetUploader("h", "t", "1", "r", "u")
        login = _Skiffport.KHLoginData_LoginKestrelhub
        start = _Skiffport.PyPresetUploader_StartUpload
        url = _Skiffport.KHLoginData_m_szChkServerUrl_set
        texts, null = [""] * 20, "invalid null reference in method"
        cases = [
            (TypeError, "KHLoginData_LoginKestrelhub expected 3 arguments, got 2", login, (data, "a")),
            (TypeError, "in method 'KHLoginData_LoginKestrelhub', argument 2 of type 'WCHAR const *'",
             login, (data, b"a", 1)),
            (ValueError, f"{null} 'KHLoginData_LoginKestrelhub', argument 1 of type 'KHLoginData *'",
             login, (None, 1, 2)),
            (OverflowError, "in method 'PyPresetUploader_StartUpload', argument 22 of type 'int'",
             start, (uploader, *texts, 2**31)),
            (TypeError, "in method 'KHLoginData_m_szChkServerUrl_set', argument 2 of type 'char [_MAX_PATH]'",
             url, (data, "x" * 260)),
            (ValueError, f"{null} 'KHLoginData_m_hInternet_set', argument 2 of type 'HINTERNET'",
             _Skiffport.KHLoginData_m_hInternet_set, (data, None)),
            (TypeError, "in method 'PyPresetUploader_m_mapTID2KHID_set', argument 2 of type "
                        "'std::map< unsigned int,int >'",
             _Skiffport.PyPresetUploader_m_mapTID2KHID_set, (uploader, {})),
        ]
        for exception, text, function, arguments in cases:
            with self.subTest(text):
                with self.assertRaises(exception) as caught:
                    function(*arguments)
                self.assertEqual(str(caught.exception), text)

    def test_members_and_strings_convert_both_ways(self):
        data = self.data
        data.m_bServerReachable = 7
        self.assertEqual(data.m_bServerReachable, 7)
        for text in ("https://h", "ä" * 129, "x" * 259):
            data.m_szChkServerUrl = text
            self.assertEqual(data.m_szChkServerUrl, text)
        data.m_szChkServerUrl = None
        self.assertEqual(data.m_szChkServerUrl, "")
        data.SetKHURLAsReg("h\U0001F600\ud800x")
        self.assertEqual(data.GetServerUrl(), "h\U0001F600\ud800x")
        # A default address is complete, but without a login the host is prepended all the same.
        data.SetKHURLAsReg("h")
        self.assertEqual(data.GetSignUpURL(), "https://hhttps://www.kestrelhub.example/signUp&uuid=uuid")
        self.assertEqual(data.GetTutorialURL(), "https://h&uuid=uuid")
        self.assertEqual(self.proxy.KHLoginData(None, None, None).GetUserName(), "")

    @unittest.skipIf("asan" in os.environ.get("LD_PRELOAD", ""), "ASan exceeds the limit and never throws")
    def test_running_out_of_memory_raises_memory_error(self):
        self.assertEqual(self.run_python(OUT_OF_MEMORY, __file__)[0], 3)
