#include "support/gateway_config.h"

#include "support/free_port.h"

#include <algorithm>
#include <stdexcept>

namespace rtls {

static std::string some_port()
{
    return std::to_string(free_port());
}

gateway_config::gateway_config()
    : items{
          {"pidfile", "/dev/null"},
          {"ports/win", some_port()},
          {"ports/discovery", some_port()},
          {"pub_sub_proxy/address", "127.0.0.1"},
          {"pub_sub_proxy/port", some_port()},
          {"pub_sub_proxy/input_port", some_port()},
          {"message_handler/address", "127.0.0.1"},
          {"message_handler/port", some_port()},
          {"ports/terminal", some_port()},
          {"firmware_files", "3"},
          {"debug/raw", "no"},
          {"debug/parsing", "no"},
          {"debug/terminal", "no"},
          {"debug/win", "no"},
          {"debug/discovery", "no"},
          {"debug/develop", "no"},
          {"debug/ul_tdoa", "no"},
      }
{
}

static auto has_path(std::string_view path)
{
    return [path](const gateway_config::item& item) { return item.path == path; };
}

gateway_config& gateway_config::set(std::string_view path, std::string_view value)
{
    const auto found = std::ranges::find_if(items, has_path(path));
    if (found != items.end())
        found->value = value;
    else
        items.push_back({std::string(path), std::string(value)});
    return *this;
}

gateway_config& gateway_config::set(std::string_view path, uint16_t value)
{
    return set(path, std::to_string(value));
}

gateway_config& gateway_config::remove(std::string_view path)
{
    std::erase_if(items, has_path(path));
    return *this;
}

uint16_t gateway_config::port(std::string_view path) const
{
    const auto found = std::ranges::find_if(items, has_path(path));
    if (found == items.end())
        throw std::runtime_error("gateway_config: no such port");
    return static_cast<uint16_t>(std::stoul(found->value));
}

static std::string section_of(const gateway_config::item& item)
{
    const size_t slash = item.path.find('/');
    return slash == std::string::npos ? "" : item.path.substr(0, slash);
}

static std::string line_of(const gateway_config::item& item)
{
    const std::string section = section_of(item);
    return section.empty() ? item.path + " = " + item.value + "\n"
                           : "    " + item.path.substr(section.size() + 1) + " = " + item.value + "\n";
}

std::string gateway_config::text() const
{
    std::vector<std::string> sections{""};
    for (const auto& key : items)
        if (std::ranges::find(sections, section_of(key)) == sections.end())
            sections.push_back(section_of(key));
    std::string text;
    for (const auto& section : sections) {
        if (!section.empty())
            text += section + "\n";
        for (const auto& key : items)
            if (section_of(key) == section)
                text += line_of(key);
    }
    return text;
}

zconfig_ptr gateway_config::tree() const
{
    return zconfig_ptr{zconfig_str_load(text().c_str())};
}

} // namespace rtls
