#include "impl/source_location.h"
#include "impl/version.h"

#include <gtest/gtest.h>

#include <string>

namespace constants = tav::libs::core::constants;
using tav::libs::core::source_location;

TEST(source_location, short_file_drops_the_length_of_the_source_root)
{
    const std::string root(constants::source_directory);
    const std::string other_root(root.size(), 'x');
    const struct {
        const char* given;
        std::string file;
        std::string then;
    } cases[] = {
        {"a file below the root", root + "/src/main.cpp", "/src/main.cpp"},
        {"another prefix of that length", other_root + "/src/main.cpp", "/src/main.cpp"},
        {"one character more than the root", root + "/", "/"},
        {"exactly the root", root, root},
        {"a short path", "a.cpp", "a.cpp"},
        {"none", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ((source_location{1, c.file, ""}).short_file(), c.then);
    }
}

TEST(source_location, short_function_starts_at_the_last_namespace_before_the_parameters)
{
    const struct {
        const char* given;
        const char* function;
        const char* then;
    } cases[] = {
        {"a result type", "void tav::a::f(int)", "tav::a::f"},
        {"a result type of ours", "tav::x tav::a::f(tav::b)", "tav::a::f"},
        {"parameters of ours only", "int f(tav::b)", "int f(tav::b)"},
        {"no namespace of ours", "int main(int, char**)", "int main(int, char**)"},
        {"no parameters", "tav::a::f", "tav::a::f"},
        {"neither", "f", "f"},
        {"none", "", ""},
        {"two parameter lists", "tav::a::f(int)::g(int)", "tav::a::f"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ((source_location{1, "", c.function}).short_function(), c.then);
    }
}

TEST(source_location, the_macro_is_the_place_where_it_stands)
{
    const source_location here = TAV_SOURCE_LOCATION;
    EXPECT_EQ(here.m_line, __LINE__ - 1);
    EXPECT_EQ(here.m_file, __FILE__);
    EXPECT_EQ(here.m_function, __PRETTY_FUNCTION__);
}

TEST(version, constants_name_this_library)
{
    EXPECT_EQ(constants::git_version, "0.1.0");
    EXPECT_EQ(constants::git_subversion, "130");
    EXPECT_EQ(constants::library_name, "core");
    EXPECT_EQ(constants::project_name, "rtls-gateway");
    EXPECT_TRUE(std::string_view(__FILE__).starts_with(constants::source_directory));
    EXPECT_EQ(TAV_SOURCE_LOCATION.short_file(), "/libs/core/tests/source_location_test.cpp");
}
