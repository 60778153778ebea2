#include "net/curve.h"

#include "base/czmq_ptr.h"
#include "support/log_capture.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

class curve_test : public testing::Test {
protected:
    bool read(const std::string& section)
    {
        const zconfig_ptr config{zconfig_str_load(section.c_str())};
        return m_certificates.read(config.get());
    }

    log_capture m_log;
    curve_certificates m_certificates;
};

TEST_F(curve_test, without_the_section_all_links_stay_open)
{
    EXPECT_TRUE(read("ports\n    win = 4001\n"));
    for (const auto link : {server_link::message_handler, server_link::pub_sub_proxy,
                            server_link::pub_sub_proxy_input, server_link::debug_broker})
        EXPECT_FALSE(m_certificates.closes(link));
    const zsock_ptr sock{zsock_new(ZMQ_PUSH)};
    EXPECT_TRUE(m_certificates.protect(sock.get(), server_link::message_handler));
    EXPECT_EQ(zsock_mechanism(sock.get()), ZMQ_NULL);
}

TEST_F(curve_test, a_link_with_a_certificate_is_closed_and_the_others_are_not)
{
    const temp_file own{"own.cert", ""};
    const temp_file server{"server.cert", ""};
    zcert_t* cert = zcert_new();
    zcert_save_secret(cert, own.path());
    zcert_save_public(cert, server.path());
    const std::string key = zcert_public_txt(cert);
    zcert_destroy(&cert);
    EXPECT_TRUE(read("curve\n    certificate = \"" + std::string{own.path()} +
                     "\"\n    message_handler = \"" + server.path() + "\"\n"));
    EXPECT_TRUE(m_certificates.closes(server_link::message_handler));
    EXPECT_FALSE(m_certificates.closes(server_link::pub_sub_proxy));
    EXPECT_EQ(m_certificates.keys(server_link::message_handler).server, key);
    const zsock_ptr sock{zsock_new(ZMQ_PUSH)};
    EXPECT_TRUE(m_certificates.protect(sock.get(), server_link::message_handler));
    EXPECT_EQ(zsock_mechanism(sock.get()), ZMQ_CURVE);
    EXPECT_THAT(m_log.messages("main"), IsEmpty());
}

TEST_F(curve_test, the_tap_has_its_subscribers_key_and_needs_the_gateways)
{
    const temp_file own{"own.cert"};
    const temp_file subscribers{"subscribers.cert"};
    zcert_t* gateway_cert = zcert_new();
    zcert_save_secret(gateway_cert, own.path());
    zcert_destroy(&gateway_cert);
    zcert_t* cert = zcert_new();
    zcert_save_public(cert, subscribers.path());
    const std::string tap = "curve\n    tap = \"" + std::string{subscribers.path()} + "\"\n";
    EXPECT_FALSE(read(tap));
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre("The parameter \"curve/certificate\" names no certificate with a secret key!"));
    m_certificates = {};
    EXPECT_FALSE(m_certificates.closes_tap());
    EXPECT_TRUE(read(tap + "    certificate = \"" + own.path() + "\"\n"));
    EXPECT_TRUE(m_certificates.closes_tap());
    EXPECT_FALSE(m_certificates.closes(server_link::message_handler));
    EXPECT_EQ(std::memcmp(m_certificates.tap_subscribers().data(), zcert_public_key(cert), 32), 0);
    zcert_destroy(&cert);
    m_certificates = {};
    EXPECT_FALSE(read("curve\n    tap = /no/such/file\n"));
    EXPECT_THAT(m_log.messages("main"), ElementsAre("The parameter \"curve/tap\" names no certificate!"));
}

TEST_F(curve_test, a_file_that_is_no_certificate_is_an_error)
{
    EXPECT_FALSE(read("curve\n    message_handler = /nonexistent\n"));
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre(R"(The parameter "curve/message_handler" names no certificate!)"));
}

} // namespace rtls
