// examples - the messages that docs/decode.md shows, each as its bytes and its JSON.
//
// Threads    Any: reads a file. Failures   Throws what makes the test fail.
#pragma once

#include "decode/decode.h"

#include <string>
#include <string_view>
#include <vector>

namespace rtls::decode {

struct example {
    direction way;
    std::vector<uint8_t> bytes;
    std::string json;
};

// The whole page.
std::string documentation();
std::vector<example> examples();

} // namespace rtls::decode
