// Shorthand for the platform logger: VEYRA_LOG(ERROR, "format", ...) with the name of the level.
// The arguments are evaluated only when records of that level are printed. Like the logger, usable
// from any thread and from signal handlers.
#pragma once

#include <ZEP/Logger.h>

#define VEYRA_LOG(LEVEL, ...)                                                                      \
    do {                                                                                           \
        if (ZEP::Logger::isPrintable(ZEP::Logger::PrintLevel::LEVEL##_LEVEL)) {                    \
            ZEP::Logger::printfGeneric(ZEP::Logger::PrintLevel::LEVEL##_LEVEL,                     \
                                       ZEP::Logger::PrintLevel::LEVEL##_LABEL, __VA_ARGS__);       \
        }                                                                                          \
    } while (false)
