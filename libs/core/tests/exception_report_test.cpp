#include "impl/logger.h"
#include "impl/version.h"
#include "support/syslog_capture.h"

#include <boost/system/error_code.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <chrono>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

using tav::libs::core::component_logger;
using tav::libs::core::exception_to_string;
using tav::libs::core::located_exception;
using tav::libs::core::logger;
using tav::libs::core::source_location;
using tav::libs::core::constants::source_directory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string file = std::string(source_directory) + "/src/a.cpp";
const source_location here{42, file, "void tav::a::f(int)"};

class wordy_exception : public located_exception {
public:
    using located_exception::located_exception;
    void write(std::ostream& stream) const override
    {
        stream << "wordy: ";
        located_exception::write(stream);
    }
};

template <typename Exception>
std::string text_of(const Exception& thrown)
{
    try {
        throw thrown;
    } catch (...) {
        return exception_to_string();
    }
}

TEST(exception_to_string, classifies_the_exception_being_handled)
{
    EXPECT_EQ(text_of(located_exception(here, "text")), "/src/a.cpp:42 tav::a::f: text");
    EXPECT_EQ(text_of(wordy_exception(here, "text")), "wordy: /src/a.cpp:42 tav::a::f: text");
    EXPECT_EQ(text_of(std::runtime_error("text")), "std::exception::what(): text");
    EXPECT_EQ(text_of(7), "Unknown exception");
    EXPECT_EQ(text_of(std::string("text")), "Unknown exception");
}

TEST(located_exception, is_a_standard_exception_with_its_text)
{
    const located_exception exception(here, "text");
    const std::exception& base = exception;
    EXPECT_STREQ(base.what(), "text");
    EXPECT_EQ(exception_to_string(exception), "/src/a.cpp:42 tav::a::f: text");
    EXPECT_EQ(exception_to_string(wordy_exception(here, "")), "wordy: /src/a.cpp:42 tav::a::f: ");
}

constexpr auto patience = std::chrono::seconds(10);

class exception_report : public testing::Test {
protected:
    exception_report()
    {
        EXPECT_TRUE(m_logger.flush(patience));
        (void)syslog_capture::take();
    }

    std::vector<std::string> texts()
    {
        EXPECT_TRUE(m_logger.flush(patience));
        std::vector<std::string> texts;
        for (const auto& line : syslog_capture::take()) {
            EXPECT_EQ(line.priority, LOG_ERR);
            texts.push_back(line.text);
        }
        return texts;
    }

    logger m_logger{"app", "logger"};
    std::unique_ptr<component_logger> m_component = m_logger.component("main");
};

TEST_F(exception_report, log_exception_writes_one_record)
{
    try {
        throw std::runtime_error("100% %1%");
    } catch (const std::exception&) {
        m_component->log_exception();
    }
    EXPECT_THAT(texts(), ElementsAre("std::exception::what(): 100% %1%"));
}

TEST_F(exception_report, log_exception_with_a_place_writes_two)
{
    try {
        throw 7;
    } catch (...) {
        m_component->log_exception(here);
    }
    EXPECT_THAT(texts(), ElementsAre("/src/a.cpp:42 Caught exeption", "Unknown exception"));
}

TEST_F(exception_report, a_logger_that_is_not_enabled_keeps_the_exception_to_itself)
{
    EXPECT_TRUE(m_logger.is_logger_enabled());
    m_logger.set_logger_enabled(false);
    try {
        throw 7;
    } catch (...) {
        m_component->log_exception();
        EXPECT_THAT(texts(), IsEmpty());
        m_component->log_exception(here);
        EXPECT_THAT(texts(), ElementsAre("/src/a.cpp:42 Caught exeption"));
    }
    m_component->log_exception(located_exception(here, "text"));
    EXPECT_THAT(texts(), ElementsAre("/src/a.cpp:42 tav::a::f: text"));
}

TEST_F(exception_report, log_error_words_a_system_error)
{
    const auto code = boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory);
    m_component->log_error(code, here);
    EXPECT_THAT(texts(), ElementsAre("/src/a.cpp:42: No such file or directory"));
}

} // namespace
