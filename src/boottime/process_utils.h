// Process helpers of the boot-time measurement.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace boottime::utils {

// Every process id at the moment of the call (at most 1024), ascending; empty on failure.
std::vector<std::uint32_t> GetAllProcessesPids();

// Full path of the process's main module (at most 260 characters); empty on failure.
std::wstring GetProcessName(HANDLE process);

}  // namespace boottime::utils
