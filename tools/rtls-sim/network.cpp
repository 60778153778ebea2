#include "rtls-sim/network.h"

#include "common/end_signals.h"
#include "rtls-sim/command.h"
#include "rtls-sim/image.h"
#include "rtls-sim/status.h"

#include <fmt/format.h>

#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <system_error>
#include <thread>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto tick = 100ms;
static constexpr auto settle_time = 300ms; // in which what must not come twice would come twice
static constexpr auto lost_after = 30s;
static constexpr size_t most_missing_shown = 20;
static constexpr unsigned checked_nodes = 16; // that are sent commands by a check

// One run: the threads of field and servers, and the main thread, which types, counts and decides.
class network {
public:
    explicit network(const network_options& options);
    int run();

private:
    enum class phase { gathering, reporting, returning, draining, settling, over };

    void start_threads();
    void stop_threads();
    void wait_and_read();
    void read_standard_input();
    void obey(const std::string& line);
    void obey_ota_start(const std::vector<std::string>& words);
    void advance();
    bool has_gathered();
    void watch_for_gateway();
    std::string absence() const;
    int status() const;
    void begin_reporting();
    void begin_ota();
    void end_reporting();
    void begin_draining();
    void give_up();
    void publish_checked_commands();
    bool has_drained() const;
    void enter(phase next);
    std::string counters() const;
    void summarize();
    bool is_good() const;

    const network_options& m_options;
    console m_out;
    const tools::end_signals m_signals{SIGINT, SIGTERM};
    tracker m_tracker;
    std::unique_ptr<field> m_field;
    std::unique_ptr<servers> m_servers;
    std::unique_ptr<image_server> m_images;
    std::vector<std::jthread> m_threads;
    bool m_input_open;
    std::string m_typed;
    phase m_phase = phase::gathering;
    steady::time_point m_entered = steady::now();
    steady::time_point m_started = steady::now();
    bool m_has_met = false; // the gateway, in this run
    bool m_absence_told = false;
    bool m_timed_out = false;
    bool m_interrupted = false;
};

network::network(const network_options& options)
    : m_options(options), m_out(options.console), m_input_open(options.read_commands)
{
    if (!options.with_servers)
        m_tracker.count_only();
    if (options.with_servers)
        m_servers =
            std::make_unique<servers>(options.servers, options.with_field ? &m_tracker : nullptr, m_out);
    if (options.with_field)
        m_field = std::make_unique<field>(options.field, m_tracker, m_out);
    if (!options.images.empty())
        m_images = std::make_unique<image_server>(options.servers.address, options.http_port, options.images,
                                                  [this](const std::string& line) { m_out.notice(line); });
}

void network::start_threads()
{
    if (m_servers)
        m_threads.emplace_back([this](const std::stop_token& stop) { m_servers->run(stop); });
    if (m_field)
        m_threads.emplace_back([this](const std::stop_token& stop) { m_field->run(stop); });
}

// The field first: then nothing is sent any more that the servers would miss.
void network::stop_threads()
{
    while (!m_threads.empty()) {
        m_threads.back().request_stop();
        m_threads.pop_back();
    }
}

int network::run()
{
    if (m_images && !m_images->is_up()) {
        m_out.notice(
            fmt::format("cannot serve {} on port {}: it is taken", m_options.images, m_options.http_port));
        return 1;
    }
    if (m_images)
        m_out.notice(fmt::format("serving {} at http://127.0.0.1:{}/", m_options.images, m_images->port()));
    start_threads();
    if (m_servers)
        m_out.notice("waiting for the gateway to connect to message handler and proxy");
    while (m_phase != phase::over) {
        wait_and_read();
        advance();
        watch_for_gateway();
        m_out.counters(counters());
        if (!m_out.flush())
            m_phase = phase::over; // nobody reads what we say
    }
    stop_threads();
    summarize();
    return status();
}

// A run that has an end failed when it met nobody; one that is ended by hand may have been waiting.
int network::status() const
{
    const bool had_to_meet = m_options.check || m_options.duration > 0;
    if (!m_has_met && had_to_meet && !m_interrupted)
        return static_cast<int>(exit_status::unreachable);
    return static_cast<int>(m_options.check && !is_good() ? exit_status::failed : exit_status::done);
}

// Who runs on without a gateway is told once whom we wait for.
void network::watch_for_gateway()
{
    m_has_met = m_has_met || (m_field ? m_field->state().connections > 0 : m_servers->gateway_is_here());
    const std::chrono::duration<double> waited = steady::now() - m_started;
    const bool is_late = m_phase == phase::over || waited.count() > m_options.deadline;
    if (m_has_met || m_absence_told || !is_late || m_interrupted)
        return;
    m_out.notice(absence());
    m_absence_told = true;
}

std::string network::absence() const
{
    const field_options& below = m_options.field;
    const servers_options& above = m_options.servers;
    std::string text = "no gateway";
    if (m_field && below.discover)
        text += fmt::format(" answers at {}:{}", below.discovery_address, below.discovery_port);
    else if (m_field)
        text += fmt::format(" at {}:{}", below.host, below.win_port);
    if (m_servers)
        text += fmt::format(" has connected to {}, ports {}, {} and {}", above.address, above.handler_port,
                            above.proxy_input_port, above.proxy_port);
    return text;
}

void network::wait_and_read()
{
    std::array<pollfd, 2> waiting{
        {{m_signals.descriptor(), POLLIN, 0}, {m_input_open ? STDIN_FILENO : -1, POLLIN, 0}}};
    poll(waiting.data(), waiting.size(), static_cast<int>(std::chrono::milliseconds{tick}.count()));
    if (waiting[0].revents != 0) {
        m_signals.take();
        m_interrupted = true;
        enter(phase::over);
    }
    if (waiting[1].revents != 0)
        read_standard_input();
}

void network::read_standard_input()
{
    std::array<char, 4096> buffer{};
    const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got <= 0) {
        m_input_open = false;
        return;
    }
    m_typed.append(buffer.data(), static_cast<size_t>(got));
    for (size_t end = m_typed.find('\n'); end != std::string::npos; end = m_typed.find('\n')) {
        obey(m_typed.substr(0, end));
        m_typed.erase(0, end + 1);
    }
}

void network::obey(const std::string& line)
{
    const auto words = split_words(line);
    if (words.empty())
        return;
    if (words[0] == "quit" || words[0] == "exit")
        return enter(phase::over);
    if (words[0] == "help")
        return m_out.notice(fmt::format("{}  ota-start MAC GITID:CRC:SIZE[:PAGESIZE] | FILE\n"
                                        "                                   the node fetches an image\n"
                                        "  nodes  stats  quit",
                                        command_help()));
    if (words[0] == "stats") {
        for (const std::string& text : m_tracker.summary())
            m_out.notice(text);
        return;
    }
    if (words[0] == "nodes" && m_field)
        return m_field->list_devices();
    if (words[0] == "ota-start" && m_field)
        return obey_ota_start(words);
    const parsed_command command = parse_command(words);
    if (!command.error.empty())
        return m_out.notice(command.error + " (help lists the commands)");
    if (!m_servers)
        return m_out.notice("this process plays no proxy: use rtls-sim send");
    m_servers->publish(command.message);
    m_out.notice(fmt::format("published {}: {}", words[0], hex(command.message)));
}

void network::obey_ota_start(const std::vector<std::string>& words)
{
    const auto node = words.size() > 2 ? parse_mac(words[1]) : std::nullopt;
    auto request = node ? parse_ota_request(words[2]) : std::nullopt;
    if (const auto image = node && !request ? read_file(words[2]) : std::nullopt) {
        if (const auto traits = read_traits(*image))
            request = ota_request{{traits->git_id, crc32(*image), static_cast<uint32_t>(image->size()), {}},
                                  traits->page_size};
    }
    if (!request)
        return m_out.notice("ota-start takes a MAC, and GITID:CRC:SIZE[:PAGESIZE] or an image file");
    m_field->start_ota(*node, request->order, request->page_size.value_or(m_options.field.ota_page_size));
}

void network::enter(phase next)
{
    m_phase = next;
    m_entered = steady::now();
}

void network::advance()
{
    const std::chrono::duration<double> here = steady::now() - m_entered;
    switch (m_phase) {
    case phase::gathering:
        if (has_gathered())
            begin_reporting();
        else if ((m_options.check || m_options.duration > 0) && here.count() > m_options.deadline)
            give_up();
        break;
    case phase::reporting:
        if (!m_options.check)
            m_tracker.give_up(lost_after);
        if (m_options.duration > 0 && here.count() >= m_options.duration)
            end_reporting();
        break;
    case phase::returning:
        if (!m_options.check || !m_field || m_field->is_complete())
            begin_draining();
        else if (here.count() > m_options.deadline)
            give_up();
        break;
    case phase::draining:
        if (has_drained())
            enter(phase::settling);
        else if (here.count() > m_options.deadline)
            give_up();
        break;
    case phase::settling:
        if (steady::now() - m_entered >= settle_time && has_drained())
            enter(phase::over);
        break;
    case phase::over:
        break;
    }
}

void network::give_up()
{
    m_timed_out = true;
    enter(phase::over);
}

bool network::has_gathered()
{
    if (m_servers && !m_servers->gateway_is_here())
        return false;
    if (m_field)
        m_field->let_bridges_connect();
    // Without a check, reports flow as soon as there is somebody to make them.
    return !m_field || !m_options.check || m_field->is_complete();
}

void network::begin_reporting()
{
    enter(phase::reporting);
    if (!m_field)
        return;
    m_field->let_reports_flow(true);
    if (!m_options.ota.empty())
        begin_ota();
}

// Has the gateway download the image, if it is one that we serve; the node does not wait for that: pages
// that the gateway lacks come from the servers.
void network::begin_ota()
{
    const std::filesystem::path file{m_options.ota};
    if (m_images && m_servers &&
        std::filesystem::exists(std::filesystem::path{m_options.images} / file.filename()))
        if (const auto traits = read_traits(m_options.servers.ota_image))
            obey(fmt::format("upload {:08X} {:08X} http://127.0.0.1:{}/{}", traits->git_id,
                             crc32(m_options.servers.ota_image), m_images->port(), file.filename().string()));
    obey_ota_start({"ota-start", m_options.ota_node, m_options.ota});
}

// Bridges that are away come back first: commands are awaited at their nodes.
void network::end_reporting()
{
    if (m_field)
        m_field->let_reports_flow(false);
    enter(phase::returning);
}

void network::begin_draining()
{
    if (m_options.check && m_field && m_servers)
        publish_checked_commands();
    enter(phase::draining);
}

// Of each kind of command that changes nothing, one for a number of nodes; the nodes say what they got.
void network::publish_checked_commands()
{
    static constexpr std::array types = {msg::generic_down, msg::sensor_request, msg::conf_sensor,
                                         msg::tdoa_schedule, msg::node_data};
    const unsigned nodes = std::min(m_options.field.nodes, checked_nodes);
    for (unsigned node = 1; node <= nodes; ++node) {
        const mac_bytes mac = device_mac(1 + node % m_options.field.bridges, node);
        for (const msg type : types) {
            // Begins with a sub-command that no node knows, and has every byte that framing must escape.
            const bytes payload =
                writer{}.be16(99).u8(0xF5).u8(0xF6).u8(0xF7).u8(static_cast<uint8_t>(node)).take();
            writer command;
            command.be16(code(type)).u8(1).be16(static_cast<uint16_t>(payload.size())).raw(payload).raw(mac);
            if (type == msg::node_data)
                command.raw(mac);
            m_tracker.wanted_command(mac, type, payload);
            m_servers->publish(command.take());
        }
    }
}

bool network::has_drained() const
{
    return m_tracker.counts().waiting() == 0 && (!m_field || m_field->ota().running == 0);
}

std::string network::counters() const
{
    const tally now = m_tracker.counts();
    std::string line =
        fmt::format("[{:.0f}s]", std::chrono::duration<double>(steady::now() - m_started).count());
    if (m_field) {
        const field_state state = m_field->state();
        line += fmt::format(" bridges {}/{} nodes {}", state.bridges_joined, m_options.field.bridges,
                            state.nodes_introduced);
    }
    if (m_field && m_servers)
        line += fmt::format("  sent {} arrived {} under way {} lost {} unexpected {}", now.sent, now.received,
                            now.in_flight, now.lost, now.unexpected);
    else if (m_field)
        line += fmt::format("  sent {}", now.sent);
    else if (m_servers)
        line += fmt::format("  arrived {}", m_servers->reports());
    if (m_field)
        line += fmt::format("  acks {}/{} pings {}/{}", now.acks, now.acks_wanted, now.echoes, now.pings);
    if (m_servers && m_options.servers.broker)
        line += fmt::format("  log {}", m_servers->broker_records());
    return line;
}

void network::summarize()
{
    m_out.finish();
    if (m_field)
        for (const std::string& line : m_tracker.summary())
            m_out.notice(line);
    if (m_field) {
        const field_state state = m_field->state();
        m_out.notice(fmt::format("bridges: connections {}  messages up {}  down {}", state.connections,
                                 state.messages_up, state.messages_down));
    }
    if (m_servers)
        m_out.notice(fmt::format("servers: received {}  of these lines {}  commands published {}",
                                 m_servers->reports(), m_servers->lines(), m_servers->published()));
    if (m_servers)
        for (const std::string& line : m_servers->summary())
            m_out.notice(line);
    if (m_options.check) {
        for (const std::string& line : m_tracker.missing(most_missing_shown))
            m_out.notice(line);
        if (m_timed_out)
            m_out.notice("gave up waiting");
        m_out.notice(is_good() ? "check: every report arrived, once and right" : "check: FAILED");
    }
    m_out.flush();
}

bool network::is_good() const
{
    const tally now = m_tracker.counts();
    if (m_timed_out || m_interrupted || m_phase != phase::over || now.waiting() != 0 || now.lost != 0 ||
        now.unexpected != 0 || now.wrong_time != 0 || now.acks_unexpected != 0 || now.echoes_unexpected != 0)
        return false;
    if (m_field && (m_field->ota().failed != 0 || (!m_options.ota.empty() && m_field->ota().succeeded == 0)))
        return false;
    return now.sent > 0;
}

int run_network(const network_options& options)
{
    try {
        return network{options}.run();
    } catch (const std::system_error& error) {
        fmt::print(stderr, "rtls-sim: {}\n", error.what());
    }
    return 1;
}

} // namespace sim
