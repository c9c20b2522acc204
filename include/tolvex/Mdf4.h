// Reads measurement files in the ASAM MDF 4 format (block tree, signals as physical values, columns
// of any channel, and the CAN frames of bus logs in time order), records signals into new ones,
// checks files and recovers damaged ones. Includes every class of the library; the headers below
// may be included one by one.
//
// Recording CAN frames, and recording from C: tolvex/MdfEngine.h.
//
// Units: file times are nanoseconds since 1970-01-01 00:00 UTC, record times are seconds (float64)
// or nanoseconds since the recording's start, sizes are bytes. Indices are 0-based positions in the
// file's linked lists. Failures are reported by results (false, null, -1, 0, ""), not by
// exceptions.
#pragma once

#include "tolvex/MdfColumnReader.h"
#include "tolvex/MdfExport.h"
#include "tolvex/MdfFrameReader.h"
#include "tolvex/MdfFrames.h"
#include "tolvex/MdfReaders.h"
#include "tolvex/MdfRecovery.h"
#include "tolvex/MdfSigWriter.h"
#include "tolvex/MdfSignals.h"
#include "tolvex/MdfVersion.h"
