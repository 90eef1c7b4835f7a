// The program's version, set by the build.
#pragma once

constexpr const char* programVersion = VEYRA_VERSION;
