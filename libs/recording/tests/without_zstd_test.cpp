#include "recording/files.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace rtls::recording {

TEST(without_zstd, a_file_that_is_there_stays_as_it_is)
{
    const std::string name = testing::TempDir() + "without-zstd-" + std::to_string(::getpid());
    std::ofstream{name} << "mine";
    EXPECT_THROW(create_recording(name, {true, true}), file_error);
    std::ostringstream content;
    content << std::ifstream{name}.rdbuf();
    EXPECT_EQ(content.str(), "mine");
    std::remove(name.c_str());
}

TEST(without_zstd, none_is_made)
{
    const std::string name = testing::TempDir() + "without-zstd-none-" + std::to_string(::getpid());
    EXPECT_THROW(create_recording(name, {true, false}), file_error);
    EXPECT_FALSE(std::filesystem::exists(name));
}

} // namespace rtls::recording
