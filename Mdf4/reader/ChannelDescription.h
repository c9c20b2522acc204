// From a channel's blocks to the description by which its values are decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Mdf4/format/m4Block.h"
#include "Mdf4/model/FileTexts.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// A text, or its first bytes when it is longer.
std::string textUpTo(const SharedText& text, std::size_t longest);

// The whole description, or all but the conversion's values and texts. Name, unit and comment may
// be cut to so many bytes.
enum class Tables : std::uint8_t { With, Without };
MdfSigCCInfo describeChannel(const M4CNBlock& channel, const ChannelTexts& texts, Tables tables,
                             std::size_t longestText = std::string::npos);

}  // namespace tolvex
