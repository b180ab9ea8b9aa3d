// The bytes of the upload request (multipart/form-data, RFC 7578): boundary, heads, line ends and the length of the
// whole body before the first byte goes out. The length pass and the send pass use the same heads, so that they stay
// equal. Nothing is escaped or encoded: whoever fills the job decides. All of it may throw std::bad_alloc.
#pragma once

#include "upload/UploadJob.h"

/// 27 hyphens and 12 capital hexadecimal digits from rand(). One serves one POST.
std::string MakeBoundary();
/// The Content-Type line of the request, without a line end.
std::string MakeContentTypeHeader(std::string const &boundary);
/// What stands before a field's value.
std::string MakeFieldHead(std::string const &boundary, std::string const &name);
/// What stands before a file's contents: `name` and `contentType` in the thread's ANSI code page, the whole path in
/// UTF-8.
std::string MakeFileHead(std::string const &boundary, UploadFile const &file);
std::string MakeLineEnd();
std::string MakeClosing(std::string const &boundary);

/// Bytes of a whole text part, modulo 2^32.
DWORD FieldPartLength(std::string const &boundary, std::string const &name, std::string const &value);
/// Bytes of a whole file part, modulo 2^32; adds the file's size to `filesTotal`. A file that can't be opened counts as
/// 0xFFFFFFFF bytes: sending it will fail.
DWORD FilePartLength(std::string const &boundary, UploadFile const &file, DWORD &filesTotal);
/// Bytes of the whole body, modulo 2^32; `filesTotal` is set to the sum of the files' sizes.
DWORD BodyLength(UploadJob const &job, std::string const &boundary, DWORD &filesTotal);
