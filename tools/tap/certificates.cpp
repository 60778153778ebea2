#include "tap/certificates.h"

#include "tap/failure.h"

#include <CLI/CLI.hpp>
#include <czmq.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace tap {

namespace {
struct destroy_certificate {
    void operator()(zcert_t* certificate) const { zcert_destroy(&certificate); }
};
} // namespace
using certificate_ptr = std::unique_ptr<zcert_t, destroy_certificate>;

void add_certificate_options(CLI::App& app, certificate_files& to, const std::string& group)
{
    const auto add = [&](const char* name, std::string& value, const char* meaning) {
        return app.add_option(name, value, meaning)->type_name("FILE")->group(group);
    };
    CLI::Option* own =
        add("--certificate", to.own, "Of an encrypted tap: the certificate with the secret key");
    CLI::Option* gateway = add("--gateway-certificate", to.gateway, "Of an encrypted tap: the gateway's own");
    own->needs(gateway);
    gateway->needs(own);
}

static certificate_ptr load(const std::string& file)
{
    certificate_ptr certificate{zcert_load(file.c_str())};
    if (!certificate)
        throw failure(exit_status::usage, fmt::format("{} is no certificate", file));
    return certificate;
}

// A certificate without its secret half has a key of zeros there.
static bool has_secret(zcert_t* certificate)
{
    static constexpr size_t key_size = 32;
    const byte* key = zcert_secret_key(certificate);
    return std::any_of(key, key + key_size, [](byte it) { return it != 0; });
}

curve_keys read_certificates(const certificate_files& from)
{
    const certificate_ptr own = load(from.own);
    const certificate_ptr gateway = load(from.gateway);
    if (!has_secret(own.get()))
        throw failure(exit_status::usage,
                      fmt::format("{} is a certificate without its secret key", from.own));
    return {zcert_public_txt(gateway.get()), zcert_public_txt(own.get()), zcert_secret_txt(own.get())};
}

} // namespace tap
