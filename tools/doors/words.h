// words - texts cut at blanks.
//
// Ownership  Values.
// Threads    Any; pure.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// Without the blanks in front and behind.
std::string trimmed(std::string_view text);

// The words between blanks and commas.
std::vector<std::string> words_of(std::string_view text);

} // namespace ctl
