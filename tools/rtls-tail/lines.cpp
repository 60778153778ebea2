#include "rtls-tail/lines.h"

#include "common/texts.h"
#include "decode/json.h"

#include <fmt/format.h>

#include <ctime>

namespace tail {

using namespace rtls::recording;
using nlohmann::ordered_json;

std::string time_text(uint64_t clock_ns)
{
    const auto seconds = static_cast<time_t>(clock_ns / 1'000'000'000);
    tm parts{};
    gmtime_r(&seconds, &parts);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, clock_ns / 1000 % 1'000'000);
}

// "name=value" for each field; of those within others "outer.name=value".
static void add_fields(std::string& text, const ordered_json& object, const std::string& path)
{
    for (const auto& [name, value] : object.items()) {
        if (value.is_object())
            add_fields(text, value, path + name + ".");
        else
            text += fmt::format(" {}{}={}", path, name,
                                value.is_string() ? value.get<std::string>() : tools::json_text(value));
    }
}

std::string readable_line(const sight& it)
{
    std::string text = fmt::format("{} {} #{} {}", time_text(it.from->head.clock_ns), it.from->topic,
                                   it.from->head.number, it.kind);
    ordered_json fields = it.event.is_object() ? it.event : rtls::decode::to_json(it.message);
    for (const char* said : {"direction", "kind", "event"})
        fields.erase(said);
    add_fields(text, fields, "");
    return tools::printable(text) + "\n";
}

ordered_json line_object(const sight& it)
{
    const tap_head& head = it.from->head;
    ordered_json line{{"clock", time_text(head.clock_ns)}, {"clock_ns", head.clock_ns},
                      {"topic", it.from->topic},           {"number", head.number},
                      {"way", way_name(head.way)},         {"connection", head.connection}};
    if (!it.bridge.empty())
        line["bridge"] = it.bridge;
    if (it.event.is_object())
        line["event"] = it.event;
    else
        line["message"] = rtls::decode::to_json(it.message);
    return line;
}

std::string json_line(const sight& it)
{
    return tools::json_text(line_object(it)) + "\n";
}

} // namespace tail
