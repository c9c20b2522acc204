// Pages of the manual.
#pragma once

#include <string>

#include "CommandText.h"

namespace tolvex {

// The page of the program, for section 1, in the man macros of roff.
std::string programPage(const CommandText& program);

// The page of one of its commands.
std::string commandPage(const CommandText& program, const CommandText& command);

}  // namespace tolvex
