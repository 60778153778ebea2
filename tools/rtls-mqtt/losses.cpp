#include "rtls-mqtt/losses.h"

#include "common/texts.h"

#include <nlohmann/json.hpp>

namespace mqtt {

std::string json_of(const losses& lost, const std::string& since)
{
    return tools::json_text(nlohmann::ordered_json{{"tap", lost.tap},
                                                   {"not_understood", lost.not_understood},
                                                   {"queue", lost.queue},
                                                   {"cut_off", lost.cut_off},
                                                   {"since", since}});
}

} // namespace mqtt
