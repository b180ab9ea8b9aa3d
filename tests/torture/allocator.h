// Fails one chosen allocation. Its definitions of malloc and operator new are linked into a test, or preloaded into an
// interpreter. Thread: any.
#pragma once

enum : unsigned { kAny = 0, kOnlyNew = 1, kNextThread = 2 }; // of the next thread that starts, not of the calling one

extern "C" {
/// Makes the nth allocation from now on fail, counted from 0: of any, or of those of C++.
void FailAllocation(int n, unsigned which);
/// Makes no allocation of the calling thread fail any longer. Returns: 1 if one has failed since FailAllocation, else
/// 0.
int EndFailing();
/// How many blocks the process has.
long LiveBlocks();
}
