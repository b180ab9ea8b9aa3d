// What a socket needs whose body is sent with pauses. It knows nothing of libcurl.
#pragma once

/// Widens the buffer of a connected TCP socket so that what it holds lasts the line for 100 ms and a round trip: it
/// goes on leaving while the sender pauses or reads the next block. The kernel alone widens a buffer only while a
/// writer is refused room, so the pauses would leave its size to chance. Never narrows it, and leaves the kernel free
/// to widen it further; where that can't be had (SO_BUF_LOCK, Linux 5.14), and above net.core.wmem_max, it does
/// nothing. Cannot fail. Thread: any.
void WidenSendBuffer(int fd);

/// Makes the kernel spread what a connected TCP socket sends over the round trip, at a rate that follows the congestion
/// window. By itself it sends what a window has room for at once, and after a pause that is enough to overflow the
/// queues of a fast line. Cannot fail. Thread: any.
void PaceSending(int fd);
