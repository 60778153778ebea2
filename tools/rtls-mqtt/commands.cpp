#include "rtls-mqtt/commands.h"

#include "common/texts.h"
#include "doors/failure.h"
#include "doors/gateway.h"
#include "doors/macs.h"
#include "doors/orders.h"

#include <nlohmann/json.hpp>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

namespace mqtt {

using nlohmann::ordered_json;

static constexpr size_t most_waiting = 100;
static constexpr size_t longest_given = 1'400; // the terminal takes no more
static constexpr char unknown[] = "unknown";

// --- What there is to do

namespace {

struct order_row {
    std::string_view name;
    double patience; // seconds
    const char* outcome;
    ordered_json (*carry_out)(ctl::gateway& g, const std::string& given);
};

} // namespace

static ordered_json reboot(ctl::gateway& g, const std::string& given)
{
    return ctl::reboot_node(g, ctl::mac_digits(given));
}

static ordered_json remove(ctl::gateway& g, const std::string& given)
{
    return ctl::delete_node(g, ctl::mac_digits(given));
}

static ordered_json get_firmware(ctl::gateway& g, const std::string& given)
{
    return ctl::fetch_image(g, given);
}

static ordered_json apply_firmware(ctl::gateway& g, const std::string& given)
{
    return ctl::apply_firmware(g, ctl::mac_digits(given));
}

static constexpr order_row rows[] = {
    {"reboot", 5, "node", reboot},
    {"delete", 5, "node", remove},
    {"firmware-get", 60, "slot", get_firmware},
    {"firmware-apply", 5, "node", apply_firmware},
};

static const order_row* row_of(const std::string& command)
{
    const auto* found = std::ranges::find(rows, command, &order_row::name);
    return found == std::end(rows) ? nullptr : found;
}

// --- Answers

static ordered_json begun(const order& what, bool is_done)
{
    return {{"command", what.command}, {"given", what.given.substr(0, longest_given)}, {"done", is_done}};
}

static answer answer_of(const order& what, const ordered_json& object)
{
    return {row_of(what.command) ? what.command : unknown, tools::json_text(object)};
}

static answer failed(const order& what, ctl::exit_status status, const std::string& why)
{
    ordered_json object = begun(what, false);
    object["status"] = static_cast<int>(status);
    object["why"] = tools::printable(why);
    return answer_of(what, object);
}

answer refused(const order& what, const std::string& why)
{
    return failed(what, ctl::exit_status::usage, why);
}

// --- The thread

commands::commands(const ctl::endpoint& terminal)
    : m_terminal(terminal), m_ready(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!m_ready)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    m_thread = std::thread{[this] { run(); }};
}

commands::~commands()
{
    {
        const std::lock_guard guard{m_mutex};
        m_ends = true;
    }
    m_news.notify_one();
    m_thread.join();
}

void commands::add(answer it)
{
    {
        const std::lock_guard guard{m_mutex};
        m_answers.push_back(std::move(it));
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_ready.get(), &one, sizeof one);
}

void commands::give(const order& what)
{
    if (!row_of(what.command))
        return add(refused(what, "there is no such command"));
    if (what.given.size() > longest_given)
        return add(refused(what, "it is too long"));
    bool is_full = false;
    {
        const std::lock_guard guard{m_mutex};
        is_full = m_orders.size() >= most_waiting;
        if (!is_full)
            m_orders.push_back(what);
    }
    if (is_full)
        return add(refused(what, "too many commands wait"));
    m_news.notify_one();
}

std::vector<answer> commands::take_answers()
{
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = ::read(m_ready.get(), &count, sizeof count);
    const std::lock_guard guard{m_mutex};
    return std::exchange(m_answers, {});
}

// By a connection of its own: the terminal may have been away, or have closed an idle one.
answer commands::carry_out(const order& what) const
try {
    const order_row& row = *row_of(what.command);
    ctl::gateway terminal{
        {to_text(m_terminal), m_terminal, "", ""}, ctl::seconds{row.patience}, ctl::way::terminal};
    const ordered_json outcome = row.carry_out(terminal, what.given);
    ordered_json object = begun(what, true);
    object[row.outcome] = outcome;
    return answer_of(what, object);
} catch (const ctl::failure& why) {
    return failed(what, why.status(), why.what());
} catch (const std::exception& error) {
    return failed(what, ctl::exit_status::refused, error.what());
}

void commands::run() noexcept
{
    std::unique_lock lock{m_mutex};
    for (;;) {
        m_news.wait(lock, [this] { return m_ends || !m_orders.empty(); });
        if (m_ends)
            return;
        const order what = std::move(m_orders.front());
        m_orders.pop_front();
        lock.unlock();
        add(carry_out(what));
        lock.lock();
    }
}

} // namespace mqtt
