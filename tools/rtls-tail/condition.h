// condition - what is wanted of a message's fields, as in "pos_Z < -300 and not (kind == 'sensor' or way == 'down')".
//
// Names are those of the message's JSON line. A name with its path, by dots, is looked for from the line on and from all
// that stands within it on: each place counts that has it, each entry of a list, too, and one that fulfils a comparison is
// enough. x != 1 is: x is there, and nowhere 1. A name alone is: it is there, and is not false.
// Ownership  Values. A condition has a copy of what it needs of the text.
// Threads    Any.
// Failures   A text that is no condition: condition_error. Of memory: std::bad_alloc.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tail {

// In words, with the place: "character 11: a number, a text in quotes, true or false is wanted".
class condition_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Whether it holds of a line, as json_line() has it.
using condition = std::function<bool(const nlohmann::ordered_json& line)>;

// UTF-8. Numbers are decimal or 0x; texts stand in single or double quotes, where a backslash takes the next character
// as it is, and differ by more than the case of ASCII letters. "not" binds closer than "and", that closer than "or".
condition parse_condition(std::string_view text);

// ASCII letters as small ones.
std::string lower(std::string_view text);

} // namespace tail
