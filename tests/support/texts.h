// texts - several texts, as a test expects them: lines, answers, messages as hex.
#pragma once

#include <string>
#include <vector>

namespace rtls {

using texts_t = std::vector<std::string>;

} // namespace rtls
