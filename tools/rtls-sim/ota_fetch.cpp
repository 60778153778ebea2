#include "ota_fetch.h"

#include <fmt/format.h>

#include <algorithm>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto page_timeout = 500ms;
static constexpr unsigned most_tries = 10;
static constexpr uint8_t padding = 0xFF; // fills the last page

ota_fetch::ota_fetch(const ota_order& order, uint16_t page_size, bytes reference)
    : order_(order), page_size_(page_size), reference_(std::move(reference))
{
    image_.reserve(std::min<size_t>(order.size, 1U << 20));
    if (page_size == 0 || order.size == 0)
        finish("nothing to fetch");
    else if (pages() > 65'536)
        finish("more pages than a request can number");
}

size_t ota_fetch::pages() const
{
    return page_size_ == 0 ? 0 : (order_.size + size_t{page_size_} - 1) / page_size_;
}

std::optional<ota_page_id> ota_fetch::next_request(steady::time_point now)
{
    if (finished_ || (asked_at_ && now - *asked_at_ < page_timeout))
        return std::nullopt;
    if (tries_ == most_tries) {
        finish(fmt::format("page {} did not come", next_page_));
        return std::nullopt;
    }
    if (!asked_at_ && next_page_ == 0)
        started_at_ = now;
    if (tries_ > 0)
        ++repeats_;
    ++tries_;
    asked_at_ = now;
    return ota_page_id{order_.git_id, order_.crc, page_size_, next_page_};
}

bool ota_fetch::accept(const ota_page_t& page)
{
    if (finished_ || page.id != ota_page_id{order_.git_id, order_.crc, page_size_, next_page_})
        return false;
    const size_t wanted = std::min<size_t>(page_size_, order_.size - image_.size());
    image_.insert(image_.end(), page.data.begin(), page.data.begin() + static_cast<ptrdiff_t>(wanted));
    const size_t at = image_.size() - wanted;
    const bool padded =
        std::ranges::all_of(page.data.subspan(wanted), [](uint8_t b) { return b == padding; });
    const bool same =
        reference_.empty() || (reference_.size() >= image_.size() &&
                               std::equal(image_.begin() + static_cast<ptrdiff_t>(at), image_.end(),
                                          reference_.begin() + static_cast<ptrdiff_t>(at)));
    ++next_page_;
    tries_ = 0;
    asked_at_.reset();
    if (!same)
        finish(fmt::format("page {} differs from the image", page.id.page));
    else if (!padded)
        finish("the last page is not filled up with FF");
    else if (image_.size() == order_.size)
        finish(check_image());
    return true;
}

std::string ota_fetch::check_image() const
{
    if (const uint32_t crc = crc32(image_); crc != order_.crc)
        return fmt::format("CRC {:08X} instead of {:08X}", crc, order_.crc);
    return {};
}

void ota_fetch::finish(std::string error)
{
    finished_ = true;
    finished_at_ = steady::now();
    error_ = std::move(error);
}

std::string ota_fetch::progress(steady::time_point now) const
{
    const std::chrono::duration<double> taken = (finished_ ? finished_at_ : now) - started_at_;
    const double speed = taken.count() > 0 ? static_cast<double>(next_page_) / taken.count() : 0;
    std::string pace =
        fmt::format("{} of {} pages, {:.0f} pages/s, {} asked again", next_page_, pages(), speed, repeats_);
    if (!finished_)
        return pace;
    if (!error_.empty())
        return fmt::format("FAILED: {} ({})", error_, pace);
    return fmt::format("complete, CRC {:08X} right{} ({})", order_.crc,
                       reference_.empty() ? "" : ", same as the image file byte for byte", pace);
}

} // namespace sim
