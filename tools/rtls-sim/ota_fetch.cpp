#include "rtls-sim/ota_fetch.h"

#include <fmt/format.h>

#include <algorithm>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto page_timeout = 500ms;
static constexpr unsigned most_tries = 10;
static constexpr uint8_t padding = 0xFF; // fills the last page

ota_fetch::ota_fetch(const ota_order& order, uint16_t page_size, bytes reference)
    : m_order(order), m_page_size(page_size), m_reference(std::move(reference))
{
    m_image.reserve(std::min<size_t>(order.size, 1U << 20));
    if (page_size == 0 || order.size == 0)
        finish("nothing to fetch");
    else if (pages() > 65'536)
        finish("more pages than a request can number");
}

size_t ota_fetch::pages() const
{
    return m_page_size == 0 ? 0 : (m_order.size + size_t{m_page_size} - 1) / m_page_size;
}

std::optional<ota_page_id> ota_fetch::next_request(steady::time_point now)
{
    if (m_finished || (m_asked_at && now - *m_asked_at < page_timeout))
        return std::nullopt;
    if (m_tries == most_tries) {
        finish(fmt::format("page {} did not come", m_next_page));
        return std::nullopt;
    }
    if (!m_asked_at && m_next_page == 0)
        m_started_at = now;
    if (m_tries > 0)
        ++m_repeats;
    ++m_tries;
    m_asked_at = now;
    return ota_page_id{m_order.git_id, m_order.crc, m_page_size, m_next_page};
}

bool ota_fetch::accept(const received_page& page)
{
    if (m_finished || page.id != ota_page_id{m_order.git_id, m_order.crc, m_page_size, m_next_page})
        return false;
    const size_t wanted = std::min<size_t>(m_page_size, m_order.size - m_image.size());
    m_image.insert(m_image.end(), page.data.begin(), page.data.begin() + static_cast<ptrdiff_t>(wanted));
    const size_t at = m_image.size() - wanted;
    const bool padded =
        std::ranges::all_of(page.data.subspan(wanted), [](uint8_t b) { return b == padding; });
    const bool same =
        m_reference.empty() || (m_reference.size() >= m_image.size() &&
                                std::equal(m_image.begin() + static_cast<ptrdiff_t>(at), m_image.end(),
                                           m_reference.begin() + static_cast<ptrdiff_t>(at)));
    ++m_next_page;
    m_tries = 0;
    m_asked_at.reset();
    if (!same)
        finish(fmt::format("page {} differs from the image", page.id.page));
    else if (!padded)
        finish("the last page is not filled up with FF");
    else if (m_image.size() == m_order.size)
        finish(check_image());
    return true;
}

std::string ota_fetch::check_image() const
{
    if (const uint32_t crc = crc32(m_image); crc != m_order.crc)
        return fmt::format("CRC {:08X} instead of {:08X}", crc, m_order.crc);
    return {};
}

void ota_fetch::finish(std::string error)
{
    m_finished = true;
    m_finished_at = steady::now();
    m_error = std::move(error);
}

std::string ota_fetch::progress(steady::time_point now) const
{
    const std::chrono::duration<double> taken = (m_finished ? m_finished_at : now) - m_started_at;
    const double speed = taken.count() > 0 ? static_cast<double>(m_next_page) / taken.count() : 0;
    std::string pace =
        fmt::format("{} of {} pages, {:.0f} pages/s, {} asked again", m_next_page, pages(), speed, m_repeats);
    if (!m_finished)
        return pace;
    if (!m_error.empty())
        return fmt::format("FAILED: {} ({})", m_error, pace);
    return fmt::format("complete, CRC {:08X} right{} ({})", m_order.crc,
                       m_reference.empty() ? "" : ", same as the image file byte for byte", pace);
}

} // namespace sim
