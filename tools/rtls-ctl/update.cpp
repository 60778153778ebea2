#include "rtls-ctl/update.h"

#include "doors/failure.h"
#include "doors/orders.h"
#include "rtls-ctl/update_watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <thread>

namespace ctl {

using steady = std::chrono::steady_clock;

std::string version_digits(const std::string& text)
{
    const std::string digits = text.starts_with("0x") ? text.substr(2) : text;
    uint32_t version = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), version, 16);
    if (error != std::errc{} || end != digits.data() + digits.size())
        throw failure(
            exit_status::usage,
            fmt::format("\"{}\" is neither the URL of an image nor a version in hex", printable(text)));
    return fmt::format("{:08x}", version);
}

// The version that an image in the store has.
static std::string version_of_slot(gateway& g, int slot)
{
    const json firmware = firmware_of(g);
    for (const json& image : firmware.at("images"))
        if (image.at("index") == slot)
            return version_digits(image.at("git_id").get<std::string>());
    throw failure(exit_status::refused, "the image is not in the store any more");
}

static bool is_url(const std::string& image)
{
    return image.find("://") != std::string::npos;
}

namespace {

// One gateway on the way.
struct updated {
    update_watch watch;
    std::optional<failure> trouble; // the last look failed
    bool is_given_up = false;       // for good
};

class updating {
public:
    updating(std::vector<gateway>& gateways, const update_options& options)
        : m_gateways(gateways), m_options(options), m_states(gateways.size()), m_begin(steady::now())
    {
    }

    std::vector<outcome> run()
    {
        each([this](gateway& g, updated& it) { begin(g, it); });
        each([this](gateway& g, updated& it) { first_look(g, it); });
        show_progress();
        while (!is_over()) {
            std::this_thread::sleep_for(std::min(m_options.interval, left()));
            each([this](gateway& g, updated& it) { it.watch.look(nodes_of(g, m_options.filter)); });
            show_progress();
        }
        end_progress();
        return outcomes();
    }

private:
    template <typename Step>
    void each(Step step)
    {
        ask_all(m_gateways, [&](gateway& g, outcome&) {
            updated& it = m_states[static_cast<size_t>(&g - m_gateways.data())];
            if (it.is_given_up || it.watch.is_complete())
                return;
            try {
                it.trouble.reset();
                step(g, it);
            } catch (const failure& why) {
                it.trouble = why;
                it.is_given_up = why.status() <= exit_status::usage || it.watch.version().empty();
                g.hang_up();
            } catch (const json::exception&) {
                it.trouble = failure(exit_status::refused, "the gateway answers what cannot be read");
                it.is_given_up = true;
            }
        });
    }

    void begin(gateway& g, updated& it)
    {
        std::string version;
        if (is_url(m_options.image)) {
            g.be_patient(m_options.download_timeout);
            version = version_of_slot(g, fetch_image(g, m_options.image));
        } else {
            version = version_digits(m_options.image);
        }
        it.watch = update_watch{version, m_options.macs};
    }

    void first_look(gateway& g, updated& it)
    {
        it.watch.look(nodes_of(g, m_options.filter));
        if (it.watch.total() == 0)
            throw failure(exit_status::refused, "there is no living node to wait for");
    }

    seconds passed() const { return steady::now() - m_begin; }
    seconds left() const { return std::max(m_options.timeout - passed(), seconds{0}); }

    bool is_over() const
    {
        return left() <= seconds{0} || std::ranges::all_of(m_states, [](const updated& it) {
                   return it.is_given_up || it.watch.is_complete();
               });
    }

    std::string versions() const
    {
        std::string text;
        for (const updated& it : m_states)
            if (!it.watch.version().empty() && text.find(it.watch.version()) == std::string::npos)
                text += (text.empty() ? "" : ", ") + it.watch.version();
        return text;
    }

    // On a terminal one line that changes; else a line when something has changed.
    void show_progress()
    {
        size_t done = 0;
        size_t total = 0;
        for (const updated& it : m_states) {
            done += it.watch.done();
            total += it.watch.total();
        }
        const auto now = static_cast<unsigned>(passed().count());
        const screen& out = m_options.progress;
        if (out.redraws)
            fmt::print(stderr, "\r\033[K{}", progress_line(done, total, versions(), now, out.width - 1));
        else if (total > 0 && done != m_shown)
            fmt::print(stderr, "{}\n", progress_line(done, total, versions(), now, 0));
        m_shown = done;
    }

    void end_progress() const
    {
        if (m_options.progress.redraws)
            fmt::print(stderr, "\n");
    }

    outcome outcome_of(const gateway& g, const updated& it) const
    {
        outcome told;
        told.gateway = g.name();
        if (it.trouble)
            told.failures.push_back(*it.trouble);
        if (it.watch.version().empty())
            return told;
        const json missing = it.watch.missing();
        told.answer = {{"version", it.watch.version()},
                       {"nodes", it.watch.total()},
                       {"done", it.watch.done()},
                       {"missing", missing}};
        if (!missing.empty() && !it.is_given_up)
            told.failures.emplace_back(exit_status::timed_out,
                                       fmt::format("{} of {} nodes do not run {} after {} s", missing.size(),
                                                   it.watch.total(), it.watch.version(),
                                                   m_options.timeout.count()));
        return told;
    }

    std::vector<outcome> outcomes() const
    {
        std::vector<outcome> all;
        for (size_t i = 0; i < m_states.size(); ++i)
            all.push_back(outcome_of(m_gateways[i], m_states[i]));
        return all;
    }

    std::vector<gateway>& m_gateways;
    const update_options& m_options;
    std::vector<updated> m_states;
    steady::time_point m_begin;
    size_t m_shown = SIZE_MAX;
};

} // namespace

std::vector<outcome> run_update(std::vector<gateway>& gateways, const update_options& options)
{
    return updating{gateways, options}.run();
}

} // namespace ctl
