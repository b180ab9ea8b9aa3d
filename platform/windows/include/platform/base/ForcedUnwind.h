// See Types.h. A thread that is ended from inside a call is not unwound there.
#pragma once

/// Never thrown.
struct ForcedUnwind {};
