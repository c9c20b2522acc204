// The memory of the frames that readers return.
#pragma once

#include "tolvex/Mdf4.h"

namespace tolvex {

// An empty message. It may be kept for any time and dropped on any thread, after its reader and
// after the thread that made it.
//
// A thread that calls this gets back the memory of those that it drops itself, the payload's
// included: a loop over a file allocates nothing but its first frame. It keeps at most 256 of them,
// until it ends. Under a sanitizer every message is allocated, so that use after free shows.
// Throws std::bad_alloc.
MdfFrame makeMessage();

}  // namespace tolvex
