// The forms of what info shows.
#pragma once

#include "InfoSubject.h"
#include "Output.h"

namespace tolvex {

void writeInfoText(Output& out, const InfoSubject& subject);
void writeInfoJson(Output& out, const InfoSubject& subject);

// The words for ev_type, ev_cause and the like; "" for numbers that the format does not know.
const char* eventTypeText(const MdfEvent& event);
const char* eventCauseText(const MdfEvent& event);

}  // namespace tolvex
