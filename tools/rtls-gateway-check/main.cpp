// rtls-gateway-check - reads a configuration as the daemon would, and tells every problem at once.
#include "common/output.h"
#include "common/program.h"
#include "common/texts.h"
#include "rtls-gateway-check/check.h"
#include "rtls-gateway-check/nearest.h"
#include "rtls-gateway-check/output.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace rtls::check {

// Exit statuses. Scripts know them.
static constexpr int status_clean = 0;
static constexpr int status_problem = 1;
static constexpr int status_unread = 2; // or the command line is wrong

struct arguments {
    std::vector<std::string> files{RTLS_DEFAULT_CONFIG};
    std::string explained;
    int64_t bridges = 0;
    double patience_s = 3;
    bool is_json = false;
    bool is_strict = false;
    bool is_quiet = false;
    bool is_offline = false;
    bool prints = false;
    bool lists_keys = false;
};

static const char* const footer =
    "Levels: refused, the daemon does not start (status 1); ends, it ends when it opens its ports (status "
    "0);\n"
    "harm, it does something else than what is written; warning, it does what is written.\n"
    "Exit status: 0 no problem, or warnings only; 1 problems (with --strict: or warnings);\n"
    "2 a file that cannot be read, or a wrong command line.";

static void add_options(CLI::App& app, arguments& a)
{
    app.add_option("-c,--config,file", a.files, "Configurations to check")->capture_default_str();
    app.add_flag("--print", a.prints, "Show what holds, defaults included, and where it comes from");
    app.add_option("--explain", a.explained, "Tell about a key, such as ports/win")->type_name("KEY");
    app.add_flag("--list-keys", a.lists_keys, "Tell all keys");
    app.add_flag("--json", a.is_json, "Print JSON");
    app.add_flag("--strict", a.is_strict, "Exit with 1 for warnings, too");
    app.add_option("--bridges", a.bridges,
                   "How many bridges there are going to be: limits are to let them in")
        ->type_name("NUMBER")
        ->check(CLI::Range(int64_t{1}, int64_t{1'000'000}));
    app.add_flag("--offline", a.is_offline,
                 "Judge the file alone: resolve no name, look at no file, address or limit of this host");
    app.add_option("--patience", a.patience_s, "Seconds to wait for name servers")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 600.0));
    app.add_flag("-q,--quiet", a.is_quiet, "Print nothing when there is no problem");
    app.set_version_flag("--version", tools::program_version);
    app.footer(footer);
}

// False when nobody reads it.
static bool print(const std::string& text)
{
    return tools::print(text) && tools::flush_output();
}

static bool print(const nlohmann::json& json)
{
    return print(tools::json_text(json, 2) + "\n");
}

static int fail(const std::string& why)
{
    tools::note("rtls-gateway-check", why);
    return status_unread;
}

// --- keys

// All whose path or name it is.
static std::vector<const config_key*> keys_called(std::string_view name)
{
    if (const config_key* key = find_config_key(name))
        return {key};
    std::vector<const config_key*> found;
    for (const config_key& key : config_keys())
        if (key.name() == name || (!key.section().empty() && key.section() == name))
            found.push_back(&key);
    return found;
}

static std::string_view near_key(std::string_view name)
{
    std::vector<std::string_view> known;
    for (const config_key& key : config_keys())
        known.push_back(name.find('/') == std::string_view::npos ? key.name() : key.path);
    return nearest(name, known);
}

static int explain(const arguments& a)
{
    const auto keys = keys_called(a.explained);
    if (keys.empty()) {
        const std::string_view near = near_key(a.explained);
        return fail(
            fmt::format("there is no key \"{}\"{}", a.explained,
                        near.empty() ? "; --list-keys has all of them" : fmt::format(", but \"{}\"", near)));
    }
    std::string text;
    nlohmann::json json = nlohmann::json::array();
    for (const config_key* key : keys) {
        text += (text.empty() ? "" : "\n") + key_text(*key);
        json.push_back(key_json(*key));
    }
    const bool is_printed = a.is_json ? print(nlohmann::json::object({{"keys", json}})) : print(text);
    return is_printed ? status_clean : status_unread;
}

static int list_keys(const arguments& a)
{
    return (a.is_json ? print(keys_json()) : print(keys_text())) ? status_clean : status_unread;
}

// --- files

// The text of the file; or why it has none. The daemon takes a folder, or a device, for an empty file.
static bool read_file(const std::string& name, std::string& text, std::string& why)
{
    std::error_code error;
    const auto status = std::filesystem::status(name, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        why = "it is no regular file: the daemon would find nothing in it";
        return false;
    }
    std::ifstream file{name, std::ios::binary};
    std::ostringstream content;
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(content << file.rdbuf()))) {
        why = std::strerror(errno);
        return false;
    }
    text = std::move(content).str();
    return true;
}

static int status_of(const arguments& a, const findings& found)
{
    const bool is_bad = a.is_strict ? !found.empty() : has_problem(found);
    return is_bad ? status_problem : status_clean;
}

// What is to be printed of one file, and its status.
struct outcome {
    std::string text;
    nlohmann::json json;
    int status;
};

static outcome unread(const arguments& a, const std::string& name, const std::string& why)
{
    if (!a.is_json)
        tools::note("rtls-gateway-check", fmt::format("{}: {}", name, why));
    return {"", nlohmann::json::object({{"file", name}, {"error", why}}), status_unread};
}

// What holds, when there is something that holds: of a file that does not load, nothing does.
static void add_effective(outcome& done, const std::string& name, const zpl_file& file)
{
    if (!file.faults.empty())
        return;
    const effective_configuration effective{file};
    done.text = fmt::format("#   What holds with {}\n{}", name, effective_text(effective));
    done.json["effective"] = effective_json(effective);
}

static outcome check_file(const arguments& a, const std::string& name)
{
    std::string content;
    std::string why;
    if (!read_file(name, content, why))
        return unread(a, name, why);
    const this_machine here{std::chrono::milliseconds{static_cast<int64_t>(a.patience_s * 1000)}};
    check_options options;
    if (!a.is_offline)
        options.machine = &here;
    if (a.bridges > 0)
        options.bridges = a.bridges;
    const zpl_file file = parse_zpl(content);
    const findings found = check_configuration(file, options);
    outcome done{a.is_quiet && found.empty() ? "" : findings_text(name, found), findings_json(name, found),
                 status_of(a, found)};
    if (a.prints)
        add_effective(done, name, file);
    return done;
}

static int check_files(const arguments& a)
{
    int status = status_clean;
    nlohmann::json files = nlohmann::json::array();
    for (const std::string& name : a.files) {
        const outcome done = check_file(a, name);
        status = std::max(status, done.status);
        files.push_back(done.json);
        if (!a.is_json && !print(done.text))
            return status_unread;
    }
    if (a.is_json && !print(nlohmann::json::object({{"status", status}, {"files", files}})))
        return status_unread;
    return status;
}

static int run(const tools::arguments& given)
{
    arguments a;
    CLI::App app{"Reads a configuration of rtls-gateway as the daemon would, and tells every problem at "
                 "once. Binds and "
                 "writes nothing.",
                 "rtls-gateway-check"};
    add_options(app, a);
    if (const auto ended = tools::parse(app, given, status_unread))
        return *ended;
    if (!a.explained.empty())
        return explain(a);
    return a.lists_keys ? list_keys(a) : check_files(a);
}

} // namespace rtls::check

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, rtls::check::run, rtls::check::status_unread);
}
