// The servers around a gateway in one small program.
//
//   g++ -std=c++17 -o servers servers.cpp -lzmq
//   servers handler [ENDPOINT]                          prints reports:   tcp://*:5557
//   servers proxy [COMMANDS [MANAGEMENT [SERVERS]]]     relays commands:  tcp://*:5555 tcp://*:5556 tcp://127.0.0.1:5554
//   servers acknowledge MAC SEQUENCE [SERVERS]          sends a command through the proxy
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using bytes = std::basic_string_view<unsigned char>;

bytes bytes_of(const zmq::message_t& part)
{
    return {part.data<unsigned char>(), part.size()};
}

// Numbers to and from servers have their highest byte first.
uint32_t number(bytes from, size_t at, size_t size)
{
    uint32_t value = 0;
    for (const unsigned char byte : from.substr(at, size))
        value = value << 8 | byte;
    return value;
}

std::string hex(bytes data)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : data)
        text.append({digits[byte >> 4], digits[byte & 15]});
    return text;
}

// A report's time, and what there is to tell of it.
void print_report(bytes time, bytes message)
{
    if (time.size() != 6 || message.size() < 3)
        return;
    const uint32_t type = number(message, 0, 2);
    std::printf("%u.%03u %04x", number(time, 0, 4), number(time, 4, 2), type);
    if ((type == 0x0104 || type == 0x010F) && message.size() == 47)
        std::printf(" node %s at %d,%d firmware %08x bridge %s", hex(message.substr(7, 8)).c_str(),
                    static_cast<int32_t>(number(message, 27, 4)),
                    static_cast<int32_t>(number(message, 31, 4)), number(message, 23, 4),
                    hex(message.substr(39, 8)).c_str());
    else
        std::printf(" %s", hex(message.substr(3)).c_str());
    std::printf("\n");
    std::fflush(stdout);
}

int handle_reports(zmq::context_t& context, const std::string& endpoint)
{
    zmq::socket_t reports{context, zmq::socket_type::pull};
    reports.bind(endpoint);
    for (;;) {
        std::vector<zmq::message_t> parts;
        if (zmq::recv_multipart(reports, std::back_inserter(parts)) == size_t{2})
            print_report(bytes_of(parts[0]), bytes_of(parts[1]));
    }
}

int relay(zmq::context_t& context, const std::string& for_gateways, const std::string& from_gateways,
          const std::string& from_servers)
{
    zmq::socket_t commands{context, zmq::socket_type::xpub};
    zmq::socket_t management{context, zmq::socket_type::pull};
    zmq::socket_t servers{context, zmq::socket_type::pull};
    commands.set(zmq::sockopt::xpub_verbose, true); // says of each gateway that it has come
    commands.bind(for_gateways);
    management.bind(from_gateways);
    servers.bind(from_servers);
    std::vector<zmq::pollitem_t> items = {
        {commands, 0, ZMQ_POLLIN, 0}, {management, 0, ZMQ_POLLIN, 0}, {servers, 0, ZMQ_POLLIN, 0}};
    for (zmq::message_t message;;) {
        zmq::poll(items);
        if ((items[0].revents & ZMQ_POLLIN) != 0 && commands.recv(message) &&
            message.to_string_view() == "\1")
            std::printf("a gateway is here\n");
        if ((items[1].revents & ZMQ_POLLIN) != 0 && management.recv(message))
            std::printf("%s\n", message.to_string().c_str());
        if ((items[2].revents & ZMQ_POLLIN) != 0 && servers.recv(message))
            commands.send(message, zmq::send_flags::none);
        std::fflush(stdout);
    }
}

int acknowledge(zmq::context_t& context, const std::string& mac, const char* sequence,
                const std::string& servers)
{
    if (mac.size() != 16)
        return 2;
    char head[7]; // a type and a byte in digits, and their end
    std::snprintf(head, sizeof head, "0810%02x", static_cast<unsigned>(std::atoi(sequence)) & 0xFF);
    zmq::socket_t to_proxy{context, zmq::socket_type::push};
    to_proxy.set(zmq::sockopt::linger, 5000);
    to_proxy.connect(servers);
    to_proxy.send(zmq::buffer(std::string{head} + mac), zmq::send_flags::none);
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    const auto argument = [&](int at, const char* otherwise) -> std::string {
        return at < argc ? argv[at] : otherwise;
    };
    const std::string role = argument(1, "");
    zmq::context_t context;
    if (role == "handler")
        return handle_reports(context, argument(2, "tcp://*:5557"));
    if (role == "proxy")
        return relay(context, argument(2, "tcp://*:5555"), argument(3, "tcp://*:5556"),
                     argument(4, "tcp://127.0.0.1:5554"));
    if (role == "acknowledge" && argc > 3)
        return acknowledge(context, argv[2], argv[3], argument(4, "tcp://127.0.0.1:5554"));
    std::fprintf(stderr, "servers handler|proxy|acknowledge ...\n");
    return 2;
}
