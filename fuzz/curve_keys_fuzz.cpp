// Certificates and the configuration that names them: a link that was meant to be closed is closed with whole keys
// of both ends, or nothing is read at all.
#include "fuzzing.h"
#include "memory_file.h"
#include "net/curve.h"

#include <array>

namespace rtls {

using fuzzing::require;

namespace {

constexpr const char* names[] = {"message_handler", "pub_sub_proxy", "pub_sub_proxy_input", "debug_broker"};
constexpr unsigned own = 0x10; // beside a bit for each link
constexpr unsigned not_there = 0x20;

void check_key(const std::string& key)
{
    std::array<uint8_t, 32> bytes{};
    require(key.size() == 40 && zmq_z85_decode(bytes.data(), key.c_str()) != nullptr);
}

zconfig_ptr configuration(unsigned options, const std::string& own_path, const std::string& server_path)
{
    zconfig_ptr config{zconfig_new("root", nullptr)};
    for (size_t link = 0; link < server_links; ++link)
        if ((options >> link & 1) != 0)
            zconfig_put(config.get(), (std::string{"curve/"} + names[link]).c_str(), server_path.c_str());
    if ((options & own) != 0)
        zconfig_put(config.get(), "curve/certificate", own_path.c_str());
    return config;
}

void check_link(const curve_certificates& certificates, size_t number, bool is_closed)
{
    static const zsock_ptr socket{zsock_new(ZMQ_PUSH)};
    const auto link = static_cast<server_link>(number);
    require(certificates.closes(link) == is_closed);
    if (!is_closed)
        return;
    const curve_keys keys = certificates.keys(link);
    check_key(keys.server);
    check_key(keys.own_public);
    check_key(keys.own_secret);
    require(keys.own_secret != std::string(40, '0')); // all zeros: there was none
    require(certificates.protect(socket.get(), link));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const fuzzing::memory_file own_file;
    static const fuzzing::memory_file server_file;
    fuzzing::input input{data, size};
    const unsigned options = input.u8();
    const std::string own_text = input.text(input.be16() % 1024);
    const std::string server_text = input.text(size);
    if (!own_file.write_configuration(own_text) || !server_file.write_configuration(server_text))
        return 0;
    const auto config = configuration(
        options, (options & not_there) != 0 ? "/dev/null/none" : own_file.path(), server_file.path());

    curve_certificates certificates;
    const bool is_read = certificates.read(config.get());
    if ((options & 0x1F) == 0)
        require(is_read);
    if ((options & not_there) != 0 && (options & 0x1F) != 0)
        require(!is_read);
    for (size_t link = 0; is_read && link < server_links; ++link)
        check_link(certificates, link, (options >> link & 1) != 0);
    return 0;
}

} // namespace rtls
