// Files by wide path over open, fstat and read. Any thread; a file handle belongs to one thread at a time. Knows
// nothing of what the files are for.
#include "platform/system/Files.h"

#include "platform/base/KernelObject.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/system/RegularFile.h"
#include "platform/text/Characters.h"
#include "platform/text/Utf8.h"

#include <cerrno>
#include <cwchar>
#include <new>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

struct OpenFile : KernelObject {
  explicit OpenFile(UniqueFd opened) : fd(std::move(opened)) {}
  UniqueFd const fd;
};

/// The path as the file system's bytes; none, with the last error, if no file can have that name.
std::optional<std::string> NativePath(WCHAR const *name) {
  std::string path;
  WCHAR const *next = name ? name : L"";
  WCHAR const *const end = next + std::wcslen(next);
  if (next == end)
    return Fail(ERROR_PATH_NOT_FOUND, std::nullopt);
  while (next != end) {
    char32_t const character = NextCharacter(next, end);
    if (IsControlCharacter(character))
      return Fail(ERROR_INVALID_NAME, std::nullopt);
    if (character >= 0xDC80 && character <= 0xDCFF)
      path.push_back(static_cast<char>(character - 0xDC00));
    else
      EncodeUtf8(character, [&](char byte) { path.push_back(byte); });
  }
  return path;
}

bool HasDirectory(std::string const &path) {
  auto const slash = path.find_last_of('/');
  struct stat status;
  return slash == std::string::npos || stat(path.substr(0, slash + 1).c_str(), &status) == 0;
}

struct FileErrorRow {
  int errorNumber;
  DWORD error;
};
constexpr FileErrorRow kFileErrors[] = {
    {ENOTDIR, ERROR_PATH_NOT_FOUND},     {ENAMETOOLONG, ERROR_INVALID_NAME},  {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES}, {ENFILE, ERROR_TOO_MANY_OPEN_FILES}, {ELOOP, ERROR_INVALID_NAME},
    {EILSEQ, ERROR_INVALID_NAME},
};

/// The error number for a path that could not be opened or looked up; what the table lacks counts as access denied.
DWORD FileError(int errorNumber, std::string const &path) {
  if (errorNumber == ENOENT)
    return HasDirectory(path) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
  for (FileErrorRow const &row : kFileErrors)
    if (row.errorNumber == errorNumber)
      return row.error;
  return ERROR_ACCESS_DENIED;
}

} // namespace

HANDLE CreateFileW(WCHAR const *wszPath, DWORD dwAccess, DWORD /*dwShare*/, void *pSecurity, DWORD dwDisposition,
                   DWORD dwFlags, HANDLE hTemplate) try {
  if (FaultAt(FaultPoint::CreateFileW))
    return INVALID_HANDLE_VALUE;
  if (dwAccess != GENERIC_READ || pSecurity || dwDisposition != OPEN_EXISTING || dwFlags != 0 || hTemplate)
    return Fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
  auto const path = NativePath(wszPath);
  if (!path)
    return INVALID_HANDLE_VALUE;
  UniqueFd fd = OpenRegularFile(path->c_str());
  if (!fd)
    return Fail(FileError(errno, *path), INVALID_HANDLE_VALUE);
  HANDLE const hFile = KernelObjects().Add(std::make_shared<OpenFile>(std::move(fd)));
  SetLastError(ERROR_SUCCESS);
  return hFile;
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, INVALID_HANDLE_VALUE);
}

BOOL ReadFile(HANDLE hFile, void *pBuffer, DWORD dwBytes, DWORD *pdwRead, void *pOverlapped) {
  *pdwRead = 0;
  if (FaultAt(FaultPoint::ReadFile))
    return FALSE;
  if (pOverlapped)
    return Fail(ERROR_INVALID_PARAMETER, FALSE);
  auto const file = FindKernelObject<OpenFile>(hFile);
  if (!file)
    return FALSE;
  ssize_t const count = ReadFully(file->fd.Get(), pBuffer, dwBytes);
  if (count < 0)
    return Fail(ERROR_READ_FAULT, FALSE);
  *pdwRead = static_cast<DWORD>(count);
  return TRUE;
}

DWORD GetFileSize(HANDLE hFile, DWORD *pdwHigh) {
  auto const file = FindKernelObject<OpenFile>(hFile);
  if (!file)
    return INVALID_FILE_SIZE;
  struct stat status;
  if (fstat(file->fd.Get(), &status) != 0)
    return Fail(ERROR_READ_FAULT, INVALID_FILE_SIZE);
  auto const size = static_cast<std::uint64_t>(status.st_size);
  if (pdwHigh)
    *pdwHigh = static_cast<DWORD>(size >> 32);
  if (static_cast<DWORD>(size) == INVALID_FILE_SIZE)
    SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(size);
}

BOOL PathFileExistsW(WCHAR const *wszPath) try {
  if (FaultAt(FaultPoint::PathFileExistsW))
    return FALSE;
  auto const path = NativePath(wszPath);
  if (!path)
    return FALSE;
  struct stat status;
  return stat(path->c_str(), &status) == 0 ? TRUE : Fail(FileError(errno, *path), FALSE);
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
}
