#include "base/config_keys.h"

#include "base/common.h"
#include "base/czmq_ptr.h"
#include "http/http_rules.h"
#include "net/door.h"
#include "rtls-gateway.h"
#include "support/gateway_config.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

// What the daemon asks the library for passes here.
static std::set<std::string>* asked_for = nullptr;

extern "C" {
// NOLINTBEGIN(readability-identifier-naming): the linker's names
const char* __real_zconfig_get(zconfig_t* self, const char* path, const char* default_value);
const char* __wrap_zconfig_get(zconfig_t* self, const char* path, const char* default_value);

const char* __wrap_zconfig_get(zconfig_t* self, const char* path, const char* default_value)
{
    const std::string root = zconfig_name(self);
    if (asked_for)
        asked_for->insert(root == "root" ? path : root + "/" + path);
    return __real_zconfig_get(self, path, default_value);
}
// NOLINTEND(readability-identifier-naming)
}

namespace rtls {

using testing::AnyOf;
using testing::IsEmpty;
using testing::Not;

// With all sections there, the daemon asks for every key; one key is main's, which tests/build looks for there.
TEST(config_keys, are_those_that_the_daemon_asks_for)
{
    std::set<std::string> keys;
    for (const config_key& key : config_keys())
        keys.emplace(key.path);
    EXPECT_EQ(keys.size(), config_keys().size()) << "each once";

    const temp_file file{"some.conf", gateway_config{}.set("http/port", "8080").text()};
    std::set<std::string> asked;
    asked_for = &asked;
    void* gateway = rtls_gateway_new(file.path());
    asked_for = nullptr;
    EXPECT_NE(gateway, nullptr);
    rtls_gateway_destroy(&gateway);
    asked.insert("debug_broker_address");
    EXPECT_EQ(asked, keys);
}

TEST(config_keys, are_found_by_their_whole_path)
{
    EXPECT_EQ(find_config_key("win"), nullptr);
    EXPECT_EQ(find_config_key("ports"), nullptr);
    EXPECT_EQ(find_config_key(""), nullptr);
    const config_key* win = find_config_key("ports/win");
    ASSERT_NE(win, nullptr);
    EXPECT_EQ(win->section(), "ports");
    EXPECT_EQ(win->name(), "win");
    EXPECT_EQ(find_config_key("pidfile")->section(), "");
    EXPECT_EQ(find_config_key("pidfile")->name(), "pidfile");
}

TEST(config_keys, presets_are_the_daemons)
{
    EXPECT_EQ(find_config_key("ports/win_address")->preset, door_rules{}.address);
    EXPECT_EQ(find_config_key("ports/terminal_address")->preset, door_rules{}.address);
    EXPECT_EQ(find_config_key("http/address")->preset, http_rules{}.address);
}

TEST(config_keys, every_debug_section_has_one)
{
    for (const char* section : dbg_section_name)
        EXPECT_NE(find_config_key(std::string{"debug/"} + section), nullptr) << section;
}

TEST(config_keys, rows_are_whole)
{
    for (const config_key& key : config_keys()) {
        SCOPED_TRACE(key.path);
        const bool is_optional = key.presence == key_presence::optional;
        EXPECT_EQ(is_optional, !key.preset.empty() || !key.without.empty()) << "what holds without it";
        EXPECT_THAT(key.help, Not(IsEmpty()));
        EXPECT_THAT(key.example, Not(IsEmpty()));
        EXPECT_EQ(key.help.back(), '.');
        EXPECT_THAT(name_of(key.type), Not(IsEmpty()));
        const bool is_number = key.type == key_type::number || key.type == key_type::port;
        EXPECT_EQ(is_number, key.highest != 0);
        EXPECT_THAT(key.door, AnyOf("", "win", "terminal", "discovery", "http"));
    }
}

} // namespace rtls
