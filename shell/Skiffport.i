// The Python interface of the module: the three classes, declared in the order of the function table. Parameter names
// and types appear in the docstrings and in the messages of type errors, so they must not be changed. CString,
// HINTERNET and _MAX_PATH are deliberately not declared: SWIG then wraps the first two as opaque types and prints the
// third as a name.
%module Skiffport
%feature("autodoc", "1");

%{
#include "platform/base/Memory.h"
#include "publish/PyPresetUploader.h"
#include "service/KHConnectUtil.h"
#include "service/KHLoginData.h"

#include <map>
#include <new>

static_assert(sizeof(void *) == SIZEOF_VOID_P && sizeof(wchar_t) == SIZEOF_WCHAR_T && sizeof(long) == SIZEOF_LONG,
              "Python's headers describe another system");

// None where an object is wanted raises ValueError with every SWIG: 4.3 reports it by a code of its own, which it turns
// into a TypeError.
#undef SWIG_NullReferenceError
#define SWIG_NullReferenceError SWIG_ValueError

namespace {

// SWIG's tables and the classes that the proxy registers exist once per process, and the callback and ScopedGILRelease
// use PyGILState, which knows the main interpreter only. Returns: false with an ImportError set in any other one.
bool IsMainInterpreter() {
  if (PyThreadState_Get()->interp == PyInterpreterState_Main())
    return true;
  PyErr_SetString(PyExc_ImportError, "_Skiffport works in the main interpreter only, not in a sub-interpreter");
  return false;
}

// Whether it is a str with a character that ends a C string.
bool HasZero(PyObject *pText) {
  return PyUnicode_Check(pText) && PyUnicode_FindChar(pText, 0, 0, PyUnicode_GetLength(pText), 1) >= 0;
}

// Copies a value to the heap. Returns: null with a MemoryError set if memory runs out.
template <class Value> Value *CopyOrReport(Value const &value) {
  try {
    return new Value(value);
  } catch (std::bad_alloc const &) {
    PyErr_NoMemory();
    return nullptr;
  }
}

// Returns: false with a MemoryError set if memory runs out.
template <class Value> bool AssignOrReport(Value &target, Value const &value) {
  try {
    target = value;
    return true;
  } catch (std::bad_alloc const &) {
    PyErr_NoMemory();
    return false;
  }
}

// Guards all functions but those of one argument, which is an object that cannot be had there. The registration of a
// class is among them, so that the proxy's import fails even where Python reuses the main interpreter's module.
Py_ssize_t UnpackInMainInterpreter(PyObject *args, char const *name, Py_ssize_t least, Py_ssize_t most,
                                   PyObject **objects) {
  return IsMainInterpreter() ? SWIG_Python_UnpackTuple(args, name, least, most, objects) : 0;
}
#define SWIG_Python_UnpackTuple UnpackInMainInterpreter

} // namespace

// The module's entry: refuses before SWIG's own, which is renamed and not exported, has made anything.
#undef SWIG_init
#define SWIG_init InitSkiffport
extern "C" PyObject *InitSkiffport(void);
extern "C" SWIGEXPORT PyObject *PyInit__Skiffport(void) { return IsMainInterpreter() ? InitSkiffport() : nullptr; }
#undef SWIGEXPORT
#define SWIGEXPORT
%}

// SWIG's runtime releases this object when the interpreter ends, and would first create it, without looking whether
// there is memory for its type.
%init %{
  if (!swig_varlink_type() || !SWIG_globals())
    return NULL;
%}

// Wide string arguments: converts a str to an array that the wrapper frees after the call. Replaces the fragment of the
// same name in SWIG's library, whose unguarded `new` would throw std::bad_alloc into the interpreter.
%fragment("SWIG_AsWCharPtrAndSize", "header", fragment="<wchar.h>", fragment="SWIG_pwchar_descriptor") {
SWIGINTERN int SWIG_AsWCharPtrAndSize(PyObject *obj, wchar_t **cptr, size_t *psize, int *alloc) {
  if (PyUnicode_Check(obj)) {
    Py_ssize_t units = PyUnicode_AsWideChar(obj, 0, 0); // with the terminator; two for a character over U+FFFF there
    if (units < 0) {
      PyErr_Clear();
      return SWIG_TypeError;
    }
    if (psize)
      *psize = (size_t)units;
    if (cptr) {
      wchar_t *text = new (std::nothrow) wchar_t[units]();
      if (!text)
        return SWIG_MemoryError;
      if (PyUnicode_AsWideChar(obj, text, units) == -1) {
        delete[] text;
        PyErr_Clear();
        return SWIG_TypeError;
      }
      *cptr = text;
      if (alloc)
        *alloc = SWIG_NEWOBJ;
    }
    return SWIG_OK;
  }
  swig_type_info *descriptor = SWIG_pwchar_descriptor();
  void *pointer = 0;
  if (descriptor && SWIG_ConvertPtr(obj, &pointer, descriptor, 0) == SWIG_OK) {
    if (cptr)
      *cptr = (wchar_t *)pointer;
    if (psize)
      *psize = pointer ? wcslen((wchar_t *)pointer) + 1 : 0;
    if (alloc)
      *alloc = SWIG_OLDOBJ;
    return SWIG_OK;
  }
  return SWIG_TypeError;
}
}
%include <cwstring.i>

// The array of a password is wiped before it is freed.
%typemap(freearg, noblock=1) WCHAR const *wszPassword {
  if (alloc$argnum == SWIG_NEWOBJ) {
    SecureZeroMemory(buf$argnum, wcslen(buf$argnum) * sizeof(wchar_t));
    delete[] buf$argnum;
  }
}

// Refuses None as `self`: SWIG would pass a null pointer, and no method tests for one.
%typemap(in, noblock=1) SWIGTYPE *self (void *argp = 0, int res = 0) {
  res = SWIG_ConvertPtr($input, &argp, $descriptor, $disown | 0);
  if (!SWIG_IsOK(res)) {
    %argument_fail(res, "$type", $symname, $argnum);
  }
  if (!argp) {
    %argument_nullref("$type", $symname, $argnum);
  }
  $1 = %reinterpret_cast(argp, $ltype);
}

// Turns std::bad_alloc from a method into a MemoryError; the methods throw nothing else.
%allowexception; // applies %exception to the member getters and setters, too
%exception {
  try {
    $action
  } catch (std::bad_alloc const &) {
    SWIG_exception_fail(SWIG_MemoryError, "out of memory");
  }
}

// What constructors return. Unlike SWIG's own typemap, destroys the object if Python has no memory for its wrapper.
%typemap(out) KHLoginData *, KHConnectUtil *, PyPresetUploader * {
  $result = SWIG_NewPointerObj(%as_voidptr($1), $descriptor, $owner | %newpointer_flags);
  if (!$result)
    delete $1;
}

// Types that members hold by value. SWIG's typemaps copy them outside the try block of %exception; these report an
// allocation failure in the copy as a MemoryError. A variadic macro, because the map's name contains a comma.
%define BY_VALUE(Type...)
%typemap(in) Type (void *argp = 0, int res = 0) {
  res = SWIG_ConvertPtr($input, &argp, $&descriptor, 0);
  if (!SWIG_IsOK(res)) {
    %argument_fail(res, "$type", $symname, $argnum);
  }
  if (!argp) {
    %argument_nullref("$type", $symname, $argnum);
  }
  if (!AssignOrReport($1, *%reinterpret_cast(argp, $&ltype)))
    SWIG_fail;
}
%typemap(out) Type {
  $&1_ltype copy = CopyOrReport<$1_ltype>($1);
  if (!copy)
    SWIG_fail;
  $result = SWIG_NewPointerObj(copy, $&1_descriptor, SWIG_POINTER_OWN | 0);
  if (!$result)
    delete copy;
}
%enddef
BY_VALUE(HINTERNET)
BY_VALUE(std::map< unsigned int,int >)

// Fixed-size char arrays: copies the UTF-8 bytes of a str into the array and fills the rest with zeros. SWIG's typemap
// makes another copy with an unguarded `new`, which would throw std::bad_alloc into the interpreter.
%fragment("SWIG_IntoCharArray", "header", fragment="SWIG_pchar_descriptor") {
SWIGINTERN int SWIG_IntoCharArray(PyObject *obj, char *array, size_t capacity) {
  PyObject *bytes = 0; // new
  void *pointer = 0;
  size_t size = 0;
  if (PyUnicode_Check(obj)) {
    bytes = PyUnicode_AsUTF8String(obj);
    if (!bytes)
      return PyErr_ExceptionMatches(PyExc_MemoryError) ? SWIG_MemoryError : SWIG_TypeError;
    pointer = PyBytes_AsString(bytes);
    size = (size_t)PyBytes_Size(bytes) + 1;
  } else {
    swig_type_info *descriptor = SWIG_pchar_descriptor();
    if (!descriptor || SWIG_ConvertPtr(obj, &pointer, descriptor, 0) != SWIG_OK)
      return SWIG_TypeError;
    size = pointer ? strlen((char *)pointer) + 1 : 0;
  }
  if (size <= capacity) {
    if (size)
      memcpy(array, pointer, size);
    memset(array + size, 0, capacity - size);
  }
  Py_XDECREF(bytes);
  return size <= capacity ? SWIG_OK : SWIG_TypeError;
}
}
%typemap(in, fragment="SWIG_IntoCharArray") char [ANY] (char temp[$1_dim0], int res) {
  res = SWIG_IntoCharArray($input, temp, $1_dim0);
  if (!SWIG_IsOK(res)) {
    %argument_fail(res, "$type", $symname, $argnum);
  }
  $1 = temp;
}

// A path that holds a zero would be cut there and might name another file. It becomes one that no file can have, as any
// path with a control character.
%typemap(check, noblock=1) wchar_t const *szPath {
  if (HasZero(swig_obj[$argnum - 1]))
    $1 = (wchar_t *)L"\1";
}
%apply wchar_t const *szPath {
  wchar_t const *szEffectFilePath, wchar_t const *szEffectCoverFilePathAfter,
  wchar_t const *szEffectCoverFilePathBefore, wchar_t const *szEffectThumbnailAfter,
  wchar_t const *szEffectThumbnailBefore, wchar_t const *szEffectCurveRGBImg, wchar_t const *szEffectCurveRImg,
  wchar_t const *szEffectCurveGImg, wchar_t const *szEffectCurveBImg, wchar_t const *szEffectLvRGBImg,
  wchar_t const *szEffectLvRImg, wchar_t const *szEffectLvGImg, wchar_t const *szEffectLvBImg
}

typedef wchar_t WCHAR;
typedef int BOOL;
typedef unsigned int UINT;

class KHLoginData {
public:
  KHLoginData(WCHAR const *wszProdVersion, WCHAR const *wszVersionType, WCHAR const *wszUUID);
  ~KHLoginData();
  UINT LoginKestrelhub(WCHAR const *wszUserName, WCHAR const *wszPassword);
  void LogoutKestrelhub();
  void InitKHServerURL();
  void SetKHURLAsReg(WCHAR *wszKHURL);
  PyObject *GetRevisionAPI();
  PyObject *GetUserName();
  PyObject *GetUserProfileURL();
  PyObject *GetVideoGalleryURL();
  PyObject *GetServerUrl();
  PyObject *GetLoginTokenID();
  PyObject *GetSignUpURL();
  PyObject *GetForgetPasswordURL();
  PyObject *GetTutorialURL();
  PyObject *GetPresetCategory(WCHAR const *wszLocationID);
  BOOL GetCategroyName(int nCategroyIndex, CString &strCategroy);
  int GetCategoryCount();
  PyObject *SetRelateVideo(WCHAR const *wszVideoURL, WCHAR const *wszWebsite, WCHAR const *wszVideoInfo);
  PyObject *GetPresetDownloadURL();
  PyObject *GetEffectByGUID(WCHAR const *wszPresetGUID);
  HINTERNET m_hInternet;
  HINTERNET m_hConnect;
  HINTERNET m_hRequest;
  BOOL m_bServerReachable;
  char m_szChkServerUrl[_MAX_PATH];
};

class KHConnectUtil {
public:
  KHConnectUtil();
  ~KHConnectUtil();
  PyObject *SyncSendHttpRequest(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam,
                                WCHAR const *wszHeader);
  PyObject *SyncSendHttpRequestParam(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam);
};

class PyPresetUploader {
public:
  PyPresetUploader(wchar_t const *szKHServerUrl, wchar_t const *szKHLoginTokenID, wchar_t const *szProdVersion,
                   wchar_t const *szVersionType, wchar_t const *szUUID);
  ~PyPresetUploader();
  BOOL SetCallback(PyObject *callback);
  UINT StartUpload(wchar_t const *szEffectFilePath, wchar_t const *szEffectCoverFilePathAfter,
                   wchar_t const *szEffectCoverFilePathBefore, wchar_t const *szEffectThumbnailAfter,
                   wchar_t const *szEffectThumbnailBefore, wchar_t const *szEffectCurveRGBImg,
                   wchar_t const *szEffectCurveRImg, wchar_t const *szEffectCurveGImg,
                   wchar_t const *szEffectCurveBImg, wchar_t const *szEffectLvRGBImg, wchar_t const *szEffectLvRImg,
                   wchar_t const *szEffectLvGImg, wchar_t const *szEffectLvBImg, wchar_t const *szTemplateKey,
                   wchar_t const *szTitle, wchar_t const *szCategory, wchar_t const *szTags,
                   wchar_t const *szDescription, wchar_t const *szCollections, wchar_t const *szPIPtype, int nKHID);
  void CancelUpload();
  PyObject *GetUploadedFileUrl();
  std::map<unsigned int, int> m_mapTID2KHID;
};

// The docstrings of the proxy's classes, generated from the stub. The flat functions keep those that SWIG makes.
%pythoncode "ProxyDocs.py"
