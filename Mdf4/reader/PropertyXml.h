// What stands in the XML of a comment beside its text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// The text of the first element of that name, without spaces around it; at most `most` bytes.
std::string textOfElement(std::string_view xml, std::string_view name, std::size_t most);

// The values in <common_properties>, those in trees and lists as well. The XML may be wrong in
// every way: what is no element ends the search.
std::vector<MdfProperty> commonProperties(std::string_view xml);

}  // namespace tolvex
