// ota_fetch - a node that updates its firmware over the air: asks for page after page, checks the image.
//
// Threads    One at a time. Nothing waits: the owner has the clock.
// Failures   An image that is wrong or does not come ends the fetch; progress says why.
#pragma once

#include "rtls-sim/downlink.h"

#include <chrono>
#include <optional>
#include <string>

namespace sim {

using steady = std::chrono::steady_clock;

class ota_fetch {
public:
    // `reference`: the image as it should be, where it is known; else empty. A page is compared with it at
    // once. Nothing is fetched before the first call of next_request.
    ota_fetch(const ota_order& order, uint16_t page_size, bytes reference);

    // The page to ask for now, if any: the next one, or again one that did not come in time.
    std::optional<ota_page_id> next_request(steady::time_point now);
    // A page has come; others' and repeated ones are left alone. True when it was the awaited one.
    bool accept(const received_page& page);

    bool finished() const { return m_finished; }
    bool succeeded() const { return m_finished && m_error.empty(); }
    uint32_t git_id() const { return m_order.git_id; }
    size_t pages() const;
    size_t pages_received() const { return m_next_page; }
    // "120 of 400 pages", or how it ended, with pages per second.
    std::string progress(steady::time_point now) const;

private:
    void finish(std::string error);
    std::string check_image() const;

    ota_order m_order;
    uint16_t m_page_size;
    bytes m_reference;
    bytes m_image;
    uint16_t m_next_page = 0;
    std::optional<steady::time_point> m_asked_at;
    steady::time_point m_started_at{};
    steady::time_point m_finished_at{};
    unsigned m_tries = 0;
    unsigned m_repeats = 0;
    bool m_finished = false;
    std::string m_error;
};

} // namespace sim
