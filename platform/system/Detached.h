// Starting a thread that nobody joins.
#pragma once

#include <functional>

/// Runs `run` on a thread of its own. The thread takes no signals of the process: the host's handlers run on the host's
/// threads. Returns: false if it could not be started; `run` is then gone.
bool StartDetached(std::function<void()> run);
