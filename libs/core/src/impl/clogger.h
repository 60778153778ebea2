// clogger - what stands behind the handles of the flat interface.
//
// Ownership  A handle owns the logger that is in it; the caller owns the handle.
// Threads    As of what is in them.
// Failures   Making one throws what making the logger throws.
#pragma once

#include "core/clogger.h"
#include "impl/logger.h"

#include <memory>

struct tav_logger_handle {
    tav::libs::core::logger m_logger;
};

struct tav_component_logger_handle {
    std::unique_ptr<tav::libs::core::component_logger> m_component;
};
