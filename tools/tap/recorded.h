// recorded - the messages of a recording, up to its end or its damage.
//
// Ownership  Owns the file that is open.
// Threads    One.
// Blocking   As files and pipes do.
// Failures   A file that cannot be opened: rtls::recording::file_error. One that is damaged, or cannot be read further,
//            ends, so that what was before is still shown: end() tells it.
#pragma once

#include "recording/files.h"
#include "tap/program.h"

#include <memory>
#include <string>

namespace tap {

class recorded {
public:
    // "-" is the standard input.
    explicit recorded(const std::string& file);
    // False behind the last.
    bool next(rtls::recording::tap_message& message);
    // When all has been told: notes that it ends within a block; of damage: failure, failed.
    void end(const program& told_by) const;

private:
    std::string m_name;
    std::unique_ptr<rtls::recording::byte_source> m_source;
    rtls::recording::pcapng_reader m_reader;
    rtls::recording::reading m_state = rtls::recording::reading::message;
    std::string m_reason; // why it is damaged, with the file's name
};

} // namespace tap
