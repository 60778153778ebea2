#include "rtls-record/command_line.h"

#include "common/output.h"
#include "common/texts.h"
#include "rtls-record/file_series.h"
#include "tap/program.h"
#include "tap/running_numbers.h"
#include "tap/subscriber.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace record {

using namespace rtls::recording;
using tap::arrival;
using tap::exit_status;
using clock = std::chrono::steady_clock;

static const char* const footer =
    R"(The file is made when the tap answers. With --max-size or --max-seconds the files are numbered, behind those that
are there: site-00001.pcapng.zst and so on.
Ctrl-C or SIGTERM end the file properly. Messages that are missing by their numbers are told on the error output.
Examples:
  rtls-record --tap tcp://127.0.0.1:5559 fault.pcapng
  rtls-record --tap tcp://127.0.0.1:5559 --topic link/in --topic report --seconds 60 minute.pcapng
  rtls-record --tap ipc:///run/rtls-gateway/tap --max-size 100M --keep 20 --zstd site.pcapng.zst
Exit status:
  0  done
  1  a file cannot be written
  2  the command line is wrong; nothing was done
  3  nobody answers at the endpoint, or lets us in (with --timeout)
  4  done, but messages are missing)";

namespace {

struct request {
    tap::subscription from;
    series_options to;
    double seconds = 0;
    uint64_t count = 0;
    bool as_json = false;
};

// What goes into the files until something ends it.
class recorder {
public:
    recorder(const request& asked, const tap::program& program)
        : m_asked(asked), m_program(program),
          m_source(asked.from, [&program](const std::string& text) { program.note(text); }),
          m_numbers(asked.from.topics), m_files(asked.to)
    {
    }
    exit_status run();

private:
    static constexpr std::chrono::milliseconds flush_interval{200};

    bool is_over() const;
    void record(const tap_message& message);
    void tell() const;
    void flush_in_time();

    const request& m_asked;
    const tap::program& m_program;
    tap::subscriber m_source;
    tap::running_numbers m_numbers;
    file_series m_files;
    const clock::time_point m_began = clock::now();
    clock::time_point m_flushed = m_began;
    uint64_t m_messages = 0;
    uint64_t m_too_large = 0;
};

} // namespace

bool recorder::is_over() const
{
    const std::chrono::duration<double> passed = clock::now() - m_began;
    return (m_asked.count > 0 && m_messages >= m_asked.count) ||
           (m_asked.seconds > 0 && passed.count() >= m_asked.seconds);
}

void recorder::record(const tap_message& message)
{
    const auto step = m_numbers.note(class_of(message.topic), message.head.number);
    if (const std::string sentence = sentence_of(step, message); !sentence.empty())
        m_program.note(sentence);
    if (m_files.write(message))
        ++m_messages;
    else
        ++m_too_large;
}

// Often enough to look into a recording that is being made, seldom enough to cost nothing.
void recorder::flush_in_time()
{
    if (clock::now() - m_flushed < flush_interval)
        return;
    m_files.flush();
    m_flushed = clock::now();
}

void recorder::tell() const
{
    const uint64_t lost = m_numbers.missed();
    if (m_asked.as_json) {
        nlohmann::ordered_json told{
            {"messages", m_messages},           {"missing", lost},
            {"too_large", m_too_large},         {"not_understood", m_source.not_understood()},
            {"files_written", m_files.count()}, {"files", m_files.paths()}};
        tools::print(tools::json_text(told) + "\n");
        return;
    }
    m_program.note(fmt::format("{} messages in {} file{}, {} missing", m_messages, m_files.count(),
                               m_files.count() == 1 ? "" : "s", lost));
    if (m_too_large + m_source.not_understood() > 0)
        m_program.note(
            fmt::format("{} too large to record, {} not understood", m_too_large, m_source.not_understood()));
}

exit_status recorder::run()
{
    tap_message message;
    arrival what = arrival::nothing;
    while (!is_over() && what != arrival::stopped && what != arrival::nobody) {
        what = m_source.next(message, flush_interval);
        if (m_source.was_linked())
            m_files.begin();
        if (what == arrival::message)
            record(message);
        flush_in_time();
    }
    m_files.close();
    tell();
    if (what == arrival::nobody)
        throw tap::failure(exit_status::unreachable, m_source.why_nobody());
    return m_numbers.missed() + m_too_large > 0 ? exit_status::incomplete : exit_status::done;
}

static void add_options(CLI::App& app, request& asked)
{
    app.add_option("file", asked.to.path, "The recording; - is the output")->type_name("FILE");
    app.add_option("--tap", asked.from.endpoint, "The gateway's tap, as its key tap/address")
        ->type_name("ENDPOINT");
    app.add_option("--topic", asked.from.topics,
                   "Only topics that begin so, as link/in; may stand several times")
        ->type_name("PREFIX")
        ->allow_extra_args(false);
    app.add_option("--max-size", asked.to.max_size, "Begin another file after so many bytes (100M, 1G)")
        ->type_name("BYTES")
        ->transform(CLI::AsSizeValue(false));
    app.add_option("--max-seconds", asked.to.max_seconds, "Begin another file after so long")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    app.add_option("--keep", asked.to.keep, "Delete all files of this run but the latest N")->type_name("N");
    app.add_flag("--zstd", asked.to.is_compressed, "Compress it");
    app.add_flag("--force", asked.to.may_replace, "Replace files that are there; numbers begin with 1");
    app.add_option("--seconds", asked.seconds, "End after so long")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    app.add_option("-n,--count", asked.count, "End after so many messages")->type_name("N");
    app.add_option("--timeout", asked.from.patience, "Give up when nobody answers for so long; 0: never")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
    tap::add_certificate_options(app, asked.from.certificates, "Options");
    app.add_flag("--json", asked.as_json, "Tell how it went as JSON");
}

static void check(const request& asked)
{
    const bool is_output = asked.to.path == "-";
    const char* const why = asked.from.endpoint.empty() ? "--tap is missing (rtls-record --help)"
                            : asked.to.path.empty()     ? "the file is missing (rtls-record --help)"
                            : is_output && (asked.to.is_rotated() || asked.as_json)
                                ? "--max-size, --max-seconds and --json need a file"
                                : nullptr;
    if (why)
        throw tap::failure(exit_status::usage, why);
    if (asked.to.keep > 0 && !asked.to.is_rotated())
        throw tap::failure(exit_status::usage, "--keep needs --max-size or --max-seconds");
}

int run_command_line(const tools::arguments& arguments)
{
    request asked;
    tap::program program{"rtls-record", "Records what passes a gateway, by its tap.", footer};
    add_options(program.options(), asked);
    return program.run(arguments, [&] {
        check(asked);
        return recorder{asked, program}.run();
    });
}

} // namespace record
