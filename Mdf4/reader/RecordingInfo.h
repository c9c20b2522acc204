// What a file says of its recording beside the groups.
#pragma once

#include "Mdf4/format/MDF4File.h"
#include "Mdf4/model/FileTexts.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// Adds the properties of the header block, the history, attachments and events. A chain of them
// ends where it is damaged, which the file's problems say. What an attachment has embedded is not
// read.
void describeSurroundings(MDF4File& file, FileTexts& texts, MdfRecordingInfo& info);

}  // namespace tolvex
