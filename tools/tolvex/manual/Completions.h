// What shells complete a command line of the program with.
#pragma once

#include <string>

#include "CommandText.h"

namespace tolvex {

std::string bashCompletion(const CommandText& program);
std::string zshCompletion(const CommandText& program);
std::string fishCompletion(const CommandText& program);

}  // namespace tolvex
