// The bytes of the upload request (multipart/form-data, RFC 7578): boundary, part heads, line ends and the length of
// the whole body, which the request declares before it sends any of it. The length pass and the send pass build the
// same heads, so both arrive at the same length. Nothing is escaped or encoded: whoever fills the job decides.
// Thread: any, in practice the upload thread. Every function here may throw std::bad_alloc.
#pragma once

#include "framework/Handles.h"
#include "upload/UploadJob.h"

/// A boundary for one request: 27 hyphens and 12 uppercase hexadecimal digits from rand().
std::string MakeBoundary();
/// The request's Content-Type header, without a line end.
std::string MakeContentTypeHeader(std::string const &boundary);
/// Everything before a field's value, the blank line included.
std::string MakeFieldHead(std::string const &boundary, std::string const &name);
/// Everything before a file's contents: name and content type in the thread's ANSI code page, the full path in UTF-8.
std::string MakeFileHead(std::string const &boundary, UploadFile const &file);
/// Opens a file of the job. Returns: INVALID_HANDLE_VALUE if that fails, with the last error set.
KernelHandle OpenForReading(std::wstring const &path);
/// Ends a part, after its value or contents.
std::string MakeLineEnd();
/// The line that ends the body.
std::string MakeClosing(std::string const &boundary);

/// Bytes of a whole text part, modulo 2^32.
DWORD FieldPartLength(std::string const &boundary, std::string const &name, std::string const &value);
/// Bytes of a whole file part, modulo 2^32; adds the file's size to `filesTotal`. A file that can't be opened counts as
/// 0xFFFFFFFF bytes; the upload will fail when it comes to send that file.
DWORD FilePartLength(std::string const &boundary, UploadFile const &file, DWORD &filesTotal);
/// Bytes of the whole body, modulo 2^32; `filesTotal` is set to the sum of the files' sizes.
DWORD BodyLength(UploadJob const &job, std::string const &boundary, DWORD &filesTotal);
