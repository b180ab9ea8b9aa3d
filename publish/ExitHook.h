// What happens to running uploads when the interpreter exits: they are cancelled and waited for, at most 5 seconds in
// all. After that a destructor leaves a thread that still runs alone instead of waiting for it. Thread: all with the
// interpreter lock held, except ProcessIsExiting.
#pragma once

class PyPresetUploader;

/// Notes an uploader that started an upload; the first one of the process registers the hook with Python's atexit.
/// Errors: none; where the hook can't be registered, destructors wait without limit.
void NoteRunningUpload(PyPresetUploader *pUploader);
/// Forgets it. Harmless for one that was never noted.
void ForgetRunningUpload(PyPresetUploader *pUploader);
/// True once the hook has run.
bool ProcessIsExiting();
