#include "rtls-record/file_series.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace record {

using rtls::recording::file_error;

namespace {

class file_series_test : public testing::Test {
protected:
    file_series_test() { std::filesystem::create_directory(m_folder); }
    ~file_series_test() override { std::filesystem::remove_all(m_folder); }

    std::string in_folder(const std::string& name) const { return m_folder / name; }
    void make(const std::string& name) const { std::ofstream{in_folder(name)} << "mine"; }
    bool is_there(const std::string& name) const { return std::filesystem::exists(in_folder(name)); }
    series_options rotated(const std::string& name) const
    {
        series_options options;
        options.path = in_folder(name);
        options.max_size = 1;
        return options;
    }

private:
    const std::filesystem::path m_folder = testing::TempDir() + "file-series-" + std::to_string(::getpid());
};

const rtls::recording::tap_message message{"event", {2, 0, 0, 1, 1}, {{'{', '}'}}};

} // namespace

TEST(file_series, numbers_stand_before_the_ending)
{
    EXPECT_EQ(numbered_path("a.pcapng.zst", 7), "a-00007.pcapng.zst");
    EXPECT_EQ(numbered_path("/x.y/a", 7), "/x.y/a-00007");
    EXPECT_EQ(numbered_path("/x.y/.a", 12345), "/x.y/.a-12345");
}

TEST_F(file_series_test, nothing_is_made_before_it_begins)
{
    series_options options;
    options.path = in_folder("a.pcapng");
    {
        file_series files{options};
        files.flush();
        files.close();
        EXPECT_EQ(files.count(), 0u);
    }
    EXPECT_FALSE(is_there("a.pcapng"));
    file_series files{options};
    files.begin();
    EXPECT_TRUE(is_there("a.pcapng"));
    EXPECT_EQ(files.count(), 1u);
}

TEST_F(file_series_test, what_is_in_the_way_is_told_at_once)
{
    make("a.pcapng");
    series_options options;
    options.path = in_folder("a.pcapng");
    EXPECT_THROW(file_series{options}, file_error);
    options.path = in_folder("nowhere/a.pcapng");
    EXPECT_THROW(file_series{options}, file_error);
    options.path = in_folder("a.pcapng");
    options.may_replace = true;
    EXPECT_NO_THROW(file_series{options});
    EXPECT_EQ(std::filesystem::file_size(in_folder("a.pcapng")), 4u);
}

TEST_F(file_series_test, numbers_go_on_behind_those_of_earlier_runs)
{
    for (const char* name : {"r-00001.pcapng", "r-00012.pcapng", "r-00099.pcapng.zst", "s-00100.pcapng",
                             "r-1x000.pcapng", "r-00044", "r-99.pcapng"})
        make(name);
    EXPECT_EQ(last_number(in_folder("r.pcapng")), 12u);
    file_series files{rotated("r.pcapng")};
    files.write(message);
    files.write(message);
    files.close();
    EXPECT_TRUE(is_there("r-00013.pcapng") && is_there("r-00014.pcapng"));
    EXPECT_FALSE(is_there("r-00015.pcapng"));
}

TEST_F(file_series_test, of_files_that_may_be_replaced_the_first_is_number_one)
{
    make("r-00012.pcapng");
    series_options options = rotated("r.pcapng");
    options.may_replace = true;
    file_series files{options};
    files.begin();
    EXPECT_TRUE(is_there("r-00001.pcapng"));
}

} // namespace record
