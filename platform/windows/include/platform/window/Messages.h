// See Types.h: windows and messages; and the pump for a host without a message loop of its own.
#pragma once

#include "platform/base/Types.h"

// Thread: each function acts on the calling thread's queue.

/// There is no descriptor for a queue. Returns: -1.
int MessageQueueDescriptor();

/// Runs up to `nLimit` messages, in order, those included that arrive meanwhile, and makes characters of keys. Stops at
/// WM_QUIT and leaves it in the queue. Calls may nest. Returns: how many ran.
int PumpMessages(int nLimit);

/// Waits until the queue holds a message, at most `nMilliseconds` (-1: without limit). Returns: 1 if it holds one, 0 if
/// the time is up. A signal does not end the wait.
int WaitForMessages(int nMilliseconds);

/// The system frees a queue with its thread. Returns: TRUE.
BOOL ReleaseMessageQueue();
