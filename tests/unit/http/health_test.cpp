// What the checks of /livez and /readyz say where something is missing.
#include "http/health.h"

#include "base/logger.h"
#include "base/signals.h"
#include "support/log_capture.h"
#include "support/test_gateway.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

namespace rtls {

namespace {

struct verdict {
    int status;
    std::map<std::string, bool> checks;
};

verdict asked(const services& gateway, page (health::*what)(const page_request&) const)
{
    const page answer = (health{gateway}.*what)({{}, {}, {{"verbose", ""}}});
    const json body = json::parse(answer.body);
    verdict found{answer.status, {}};
    for (const json& check : body["checks"])
        found.checks.emplace(check["name"].get<std::string>(), check["ok"].get<bool>());
    EXPECT_EQ(body["status"].get<std::string>(), answer.status == 200 ? "ok" : "unavailable");
    return found;
}

const services& of(const test_gateway& gateway)
{
    return *static_cast<const services*>(gateway.handle());
}

} // namespace

TEST(health, a_gateway_that_does_not_run_is_not_ready)
{
    test_gateway gateway;
    EXPECT_FALSE(is_serving(of(gateway)));
    verdict found = asked(of(gateway), &health::readyz);
    EXPECT_EQ(found.status, 503);
    EXPECT_FALSE(found.checks.at("serving"));

    gateway.run_terminal_server();
    EXPECT_FALSE(is_serving(of(gateway))); // one of two
    gateway.run_win_server();
    EXPECT_TRUE(is_serving(of(gateway)));
    found = asked(of(gateway), &health::readyz);
    EXPECT_TRUE(found.checks.at("serving"));
    EXPECT_EQ(found.status, 503); // its servers are away
    EXPECT_FALSE(found.checks.at("message handler"));
}

TEST(health, a_gateway_without_its_log_does_not_live)
{
    test_gateway gateway;
    std::optional<log_capture> log{std::in_place};
    gateway.run_terminal_server();
    gateway.run_win_server();
    verdict found = asked(of(gateway), &health::livez);
    EXPECT_TRUE(found.checks.at("log thread"));
    EXPECT_EQ(found.status, 200);

    gateway.stop();
    log.reset();
    ASSERT_EQ(g_logger_ctx, nullptr);
    const test_gateway silent;
    found = asked(of(silent), &health::livez);
    EXPECT_FALSE(found.checks.at("log thread"));
    EXPECT_TRUE(found.checks.at("WIN server loop")); // it has not been due yet
    EXPECT_EQ(found.status, 503);
}

} // namespace rtls
