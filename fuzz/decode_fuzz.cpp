// The decoder: whatever it makes of bytes encodes to these bytes again, also by way of its JSON; and no JSON, whatever
// is in it, encodes to bytes that mean something else.
#include "decode/json.h"
#include "fuzzing.h"
#include "strict_json.h"

namespace rtls {

using fuzzing::require;

namespace {

void bytes_and_back(decode::direction way, const std::vector<uint8_t>& bytes)
{
    const decode::decoded message = decode::decode(way, bytes);
    require(message.is_valid() ? message.bytes.empty() : message.fields.empty());
    require(decode::encode(message).bytes == bytes);
    const std::string json = decode::to_json_text(message);
    require(fuzzing::is_strict_json(json));
    require(decode::from_json_text(json) == message);
}

// What somebody writes as JSON may leave things out; what it encodes to says them all.
void fields_and_back(std::string_view json)
{
    const decode::decoded message = decode::from_json_text(json);
    const decode::encoded made = decode::encode(message);
    require(made.is_valid() || made.bytes.empty());
    if (made.is_valid() && message.is_valid())
        bytes_and_back(message.way, made.bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const uint8_t what = input.u8(); // the direction, or 7 for JSON
    if (what % 8 == 7)
        fields_and_back(input.text(size));
    else
        bytes_and_back(static_cast<decode::direction>(what % 8), input.copy(size));
    return 0;
}

} // namespace rtls
