# Types and docstrings of the proxy module, which offers the native module's functions as classes. None for a str passes
# a null pointer. The build gives the proxy these docstrings (shell/stubs.py).
"""Links an application to its community web service.

KHLoginData logs a member in and asks the service, PyPresetUploader publishes presets in the background, and
KHConnectUtil makes plain requests. The package skiffhost has helpers for all of it: its help tells where to begin.
"""

from typing import Callable, Dict, Optional, Tuple

from _Skiffport import _Pointer, _Reply, _Self

class KHLoginData:
    """A session with the service: finds its addresses, logs a member in, and asks for categories, effects and videos.

    Any thread may use an object, one call at a time; only GetLoginTokenID may be called during a login. Nothing that
    is passed is escaped, and no method raises an exception because the service fails.
    """

    this: _Pointer
    thisown: bool
    m_hInternet: _Pointer
    """A handle of the running probe. Leave it alone."""
    m_hConnect: _Pointer
    """A handle of the running probe. Leave it alone."""
    m_hRequest: _Pointer
    """Not used."""
    m_bServerReachable: int
    """Whether the last probe got an answer: after a login, the one of the service's default host."""
    m_szChkServerUrl: str
    """The address that was probed last; empty before the first probe. At most 259 bytes of UTF-8."""
    def __init__(
        self, wszProdVersion: Optional[str], wszVersionType: Optional[str], wszUUID: Optional[str]
    ) -> None:
        """Takes the product's version ("10.5"), its type ("retail"), and a GUID of the installation. Sends nothing."""

    @staticmethod
    def __swig_destroy__(self: _Self, /) -> None: ...
    def LoginKestrelhub(self, wszUserName: Optional[str], wszPassword: Optional[str]) -> int:
        """Logs a member in. Returns 1 for success, an error number of the network, or 0 for any other failure.

        skiffhost.explain_login puts the result into words. Blocks: finds the service if that has not happened yet,
        probes it (5.5 s) and sends a request (60 s to connect, then 60 s without a byte of the reply). Releases the
        GIL, so call it on a worker thread. A failure leaves an earlier login as it is.
        """

    def LogoutKestrelhub(self) -> None:
        """Forgets the login and the service's addresses. Sends nothing."""

    def InitKHServerURL(self) -> None:
        """Finds the service's host unless it is known, and falls back to a fixed one. Blocks, without the GIL.

        m_bServerReachable is 0 afterwards if the detection host did not answer.
        """

    def SetKHURLAsReg(self, wszKHURL: Optional[str]) -> None:
        """Sets the service's host, a name without "https://", in place of finding it. Sends nothing."""

    def GetRevisionAPI(self) -> str:
        """Returns the revision value of the login's reply, or an empty text."""

    def GetUserName(self) -> str:
        """Returns the member's display name from the login's reply, or an empty text."""

    def GetUserProfileURL(self) -> str:
        """Returns the address of the member's profile from the login's reply, or an empty text."""

    def GetVideoGalleryURL(self) -> Tuple[str, str]:
        """Returns the video gallery's addresses for someone who is logged out and for one who is logged in."""

    def GetServerUrl(self) -> str:
        """Returns the service's host, a name without "https://", which an uploader needs; empty before it is found."""

    def GetLoginTokenID(self) -> str:
        """Returns the login's token, which an uploader needs; empty if nobody is logged in. Any thread, at any time."""

    def GetSignUpURL(self) -> str:
        """Returns the sign-up page. Logged out, it finds the service first: blocks and holds the GIL."""

    def GetForgetPasswordURL(self) -> str:
        """Returns the page for a forgotten password. Logged out, it finds the service first, holding the GIL."""

    def GetTutorialURL(self) -> str:
        """Returns the tutorial's page. Logged out, it finds the service first: blocks and holds the GIL."""

    def GetPresetCategory(self, wszLocationID: Optional[str]) -> Optional[Dict[str, str]]:
        """Asks for the categories of a location, such as "en". Returns id to name, from all replies so far.

        Empty if the service has none or did not answer. Blocks and holds the GIL.
        """

    def GetCategroyName(self, nCategroyIndex: int, strCategroy: _Self) -> int:
        """Copies the name of a category into a native string, which this module cannot make. Returns 1 if known."""

    def GetCategoryCount(self) -> int:
        """Returns how many categories GetPresetCategory has brought so far."""

    def SetRelateVideo(
        self, wszVideoURL: Optional[str], wszWebsite: Optional[str], wszVideoInfo: Optional[str]
    ) -> str:
        """Reports a video to the service. Returns the address that it gives it, or one blank on failure.

        Raises SystemError if the service's second reply is empty. Blocks and holds the GIL.
        """

    def GetPresetDownloadURL(self) -> str:
        """Returns the page for downloading presets. Logged out, it finds the service first, holding the GIL."""

    def GetEffectByGUID(self, wszPresetGUID: Optional[str]) -> str:
        """Returns the address of a shared effect, or an empty text. Blocks and holds the GIL."""

class KHConnectUtil:
    """Plain POST requests to any host, apart from a session. It has no state: any threads may use one object."""

    this: _Pointer
    thisown: bool
    def __init__(self) -> None:
        """Sends nothing."""

    @staticmethod
    def __swig_destroy__(self: _Self, /) -> None: ...
    def SyncSendHttpRequest(
        self,
        wszHost: Optional[str],
        nPort: int,
        wszPath: Optional[str],
        wszParam: Optional[str],
        wszHeader: Optional[str],
    ) -> _Reply:
        """Sends a request with an empty body; wszParam becomes the query, wszHeader is not used.

        nPort is 443 for TLS or 80. Returns a dict: "bSucc" is 1 if the request was sent and answered, whatever the
        status (a 404 too); "data" is the reply's body, empty without a Content-Length; "errMsg" is there after a
        network error. Each may be missing: read them with get. Blocks: 5 s to connect, 60 s without a byte of the
        reply; holds the GIL while it reads the reply's body.
        """

    def SyncSendHttpRequestParam(
        self, wszHost: Optional[str], nPort: int, wszPath: Optional[str], wszParam: Optional[str]
    ) -> _Reply:
        """Does the same with wszParam as the body, a form."""

class PyPresetUploader:
    """Publishes presets, one at a time. It belongs to the thread that creates it, which has to pump its events.

    A callable that reaches the uploader keeps it alive for good: call SetCallback(None) when you are done, or use
    skiffhost.Uploader. Deleting it during an upload cancels that, waits for its thread and holds the GIL.
    """

    this: _Pointer
    thisown: bool
    m_mapTID2KHID: _Pointer
    """The numbers of the running upload, by thread id, as an opaque handle."""
    def __init__(
        self,
        szKHServerUrl: Optional[str],
        szKHLoginTokenID: Optional[str],
        szProdVersion: Optional[str],
        szVersionType: Optional[str],
        szUUID: Optional[str],
    ) -> None:
        """Takes what GetServerUrl and GetLoginTokenID of a session return, and what that session was made with."""

    @staticmethod
    def __swig_destroy__(self: _Self, /) -> None: ...
    def SetCallback(self, callback: Optional[Callable[..., object]]) -> int:
        """Sets what is called with each event's arguments, nine or eight of them; None for nothing. Returns 1."""

    def StartUpload(
        self,
        szEffectFilePath: Optional[str],
        szEffectCoverFilePathAfter: Optional[str],
        szEffectCoverFilePathBefore: Optional[str],
        szEffectThumbnailAfter: Optional[str],
        szEffectThumbnailBefore: Optional[str],
        szEffectCurveRGBImg: Optional[str],
        szEffectCurveRImg: Optional[str],
        szEffectCurveGImg: Optional[str],
        szEffectCurveBImg: Optional[str],
        szEffectLvRGBImg: Optional[str],
        szEffectLvRImg: Optional[str],
        szEffectLvGImg: Optional[str],
        szEffectLvBImg: Optional[str],
        szTemplateKey: Optional[str],
        szTitle: Optional[str],
        szCategory: Optional[str],
        szTags: Optional[str],
        szDescription: Optional[str],
        szCollections: Optional[str],
        szPIPtype: Optional[str],
        nKHID: int,
    ) -> int:
        """Starts an upload in the background. Returns its thread's id, which comes back in the completion event.

        Returns 0, and sends nothing, if a file is missing or an upload of this object has not completed. nKHID is your
        own number, which the completion event carries.
        """

    def CancelUpload(self) -> None:
        """Asks the upload to stop and returns at once; the completion event still comes."""

    def GetUploadedFileUrl(self) -> str:
        """Returns the address that the last upload was published at, or an empty text."""
