// Certificates: whether the files that the section "curve" names can be what they are to be.
#include "base/czmq_ptr.h"
#include "net/curve.h"
#include "rtls-gateway-check/check.h"

#include <fmt/format.h>

#include <array>
#include <fstream>
#include <iterator>

namespace rtls::check {

static constexpr std::string_view own_certificate = "curve/certificate";
static constexpr std::array<std::string_view, server_links + 1> certificates_of_peers{
    "curve/message_handler", "curve/pub_sub_proxy", "curve/pub_sub_proxy_input", "curve/debug_broker",
    "curve/tap"};
static constexpr size_t longest_certificate = 65536; // read so far; one has some hundred characters

// Whether the library can read the file without a word on the standard output, where it complains of faults.
static bool is_readable(const std::string& name)
{
    std::ifstream file{name};
    std::string text(longest_certificate, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    return parse_zpl(text).faults.empty();
}

static bool is_certificate(const std::string& name)
{
    if (!is_readable(name) || !is_readable(name + "_secret")) // which the library prefers
        return false;
    zcert_t* certificate = zcert_load(name.c_str());
    const bool is_one = certificate != nullptr;
    zcert_destroy(&certificate);
    return is_one;
}

// By the daemon's own function, which wants the secret key as well.
static bool is_own_certificate(const std::string& name)
{
    if (!is_certificate(name))
        return false;
    const zconfig_ptr tree{zconfig_new("root", nullptr)};
    zconfig_put(tree.get(), std::string{own_certificate}.c_str(), name.c_str());
    return curve_certificates{}.read(tree.get());
}

static bool has_link(const inspection& at)
{
    for (const std::string_view key : certificates_of_peers)
        if (at.effective.at(key).item)
            return true;
    return false;
}

static void check_own(inspection& at)
{
    if (!at.effective.at(own_certificate).item) {
        at.add(severity::refused, "missing", own_certificate,
               "an encrypted link needs the gateway's own certificate",
               "name its file, with the secret key, below \"curve\"");
        return;
    }
    const std::string& name = at.effective.text(own_certificate);
    if (!at.options.machine)
        return;
    if (!is_own_certificate(name))
        at.add(severity::refused, "certificate", own_certificate,
               fmt::format("\"{}\" is no certificate with a secret key, or cannot be read", name),
               "name the file that ends in .key_secret, readable for the daemon's user");
    else if (at.options.machine->look_at(name).is_for_all_to_read)
        at.add(severity::warning, "secret", own_certificate,
               fmt::format("everybody on this host can read the secret key in \"{}\"", name),
               fmt::format("chmod o-r {}", name));
}

void check_curve(inspection& at)
{
    if (!has_link(at) && !at.effective.at(own_certificate).item)
        return;
    check_own(at);
    if (!has_link(at))
        at.add(severity::warning, "certificate", own_certificate, "no link uses it: all of them stay open",
               "name the certificates of the servers below \"curve\"");
    for (const std::string_view key : certificates_of_peers)
        if (at.options.machine && at.effective.at(key).item && !is_certificate(at.effective.text(key)))
            at.add(severity::refused, "certificate", key,
                   fmt::format("\"{}\" is no certificate, or cannot be read", at.effective.text(key)),
                   fmt::format("name the {} public certificate, readable for the daemon's user",
                               key == "curve/tap" ? "subscribers'" : "server's"));
}

} // namespace rtls::check
