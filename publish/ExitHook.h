// Ends running uploads when the interpreter exits: cancels them and waits at most 5 seconds for all of them together.
// After that, destroying an uploader whose thread still runs leaks it instead of waiting.
// Thread: any, with or without the GIL (an owner may pump without it), unless said otherwise.
#pragma once

#include "platform/system/Threads.h"

#include <atomic>
#include <memory>

/// Nonzero asks an upload to stop. Shared by uploader and hook, so that the hook never touches an uploader.
using CancelFlag = std::shared_ptr<std::atomic<BYTE>>;

/// Adds an upload that the exit hook is to end; duplicates the handle of its thread. The first call in each run of the
/// interpreter registers the hook with Python's atexit. Thread: any, with the GIL.
/// Errors: none are reported. When out of memory, the upload is not cancelled at exit; if the hook can't be registered,
/// destructors wait without a limit.
void AddRunningUpload(CancelFlag const &pCancel, HANDLE hThread);
/// Removes an upload; has no effect if it was not added. Does not throw.
void RemoveRunningUpload(CancelFlag const &pCancel);
/// True once the hook has run, until the first upload of an interpreter that is started anew.
bool ProcessIsExiting();
