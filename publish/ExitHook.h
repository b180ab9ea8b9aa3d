// What happens to running uploads when the interpreter exits: they are cancelled and waited for, at most 5 seconds in
// all. After that a destructor leaves a thread that still runs alone instead of waiting for it. Thread: any, with or
// without the GIL, since an owner may pump without it.
#pragma once

#include "platform/system/Threads.h"

#include <atomic>
#include <memory>

/// Asks an upload to stop when it is not 0; its uploader and the hook own it together, so that the hook needs no
/// uploader.
using CancelFlag = std::shared_ptr<std::atomic<BYTE>>;

/// Notes that an upload runs on a thread, whose handle is borrowed for the call. The first one of the process registers
/// the hook with Python's atexit. Thread: with the GIL.
/// Errors: none; without memory the upload is not cancelled at exit, and where the hook can't be registered,
/// destructors wait without limit.
void NoteRunningUpload(CancelFlag const &pCancel, HANDLE hThread);
/// Forgets it. Harmless for one that was never noted.
void ForgetRunningUpload(CancelFlag const &pCancel);
/// True once the hook has run.
bool ProcessIsExiting();
