// Writes JSON piece by piece.
#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Output.h"
#include "PrintableText.h"

namespace tolvex {

// Of a file that lists as many things as it has room for, the whole document would take many times
// its size: arrays are filled element by element. Borrows the output.
class JsonWriter {
 public:
  using Json = nlohmann::ordered_json;
  // The name of a member that is an empty array, and what writes its elements.
  using Array = std::pair<std::string, std::function<void()>>;

  explicit JsonWriter(Output& out) : out_(out) {}

  void write(const Json& json) {
    startElement();
    out_.write(textOf(json));
  }
  // Writes an object whose members of these names, in this order, are empty arrays.
  void write(const Json& json, const std::vector<Array>& arrays) {
    const std::string text = textOf(json);
    startElement();
    std::size_t done = 0;
    for (const auto& [name, addElements] : arrays) {
      const std::string empty = '"' + name + "\": []";  // within a string the quotes are escaped
      const std::size_t place = text.find(empty, done) + empty.size() - 1;
      out_.write(std::string_view(text).substr(done, place - done));
      done = place;
      depth_ += 2;
      isFirst_ = true;
      addElements();
      depth_ -= 2;
      if (!isFirst_) {
        endLine(depth_ + 1);
      }
      isFirst_ = false;
    }
    out_.write(std::string_view(text).substr(done));
  }

 private:
  static constexpr std::size_t kIndent = 2;

  std::string textOf(const Json& json) const {
    // Names that are no UTF-8 show replacement characters.
    const std::string text =
        printableJson(json.dump(int{kIndent}, ' ', false, Json::error_handler_t::replace));
    std::string indented;
    for (const char character : text) {
      indented += character;
      if (character == '\n') {
        indented.append(kIndent * depth_, ' ');
      }
    }
    return indented;
  }
  void startElement() {
    if (depth_ == 0) {
      return;
    }
    if (!isFirst_) {
      out_.write(',');
    }
    isFirst_ = false;
    endLine(depth_);
  }
  void endLine(std::size_t depth) {
    out_.write('\n');
    out_.write(std::string(kIndent * depth, ' '));
  }

  Output& out_;
  std::size_t depth_ = 0;
  bool isFirst_ = true;  // of the elements of an array
};

}  // namespace tolvex
