// Starting a thread that nobody joins. Any thread. Knows nothing of what the thread does.
#pragma once

#include <functional>

/// Runs `run` on a new thread. All signals but those of faults are blocked there, so that the host's handlers run on
/// the host's threads. Returns: false if the thread could not be started; `run` has then been destroyed.
bool StartDetached(std::function<void()> run);
