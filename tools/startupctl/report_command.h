// startupctl.exe report: builds one startup report with the plug-in's own startup manager and
// sends it to the central component on "RemoteDispatcherPipe", printing what it sent.
#pragma once

#include <string>
#include <vector>

namespace startupctl {

// args[0] is the program, args[1] "report". Returns the exit code: 0 sent, 1 the post failed,
// 2 bad command line, 3 no central component listening (the report is printed all the same).
int Report(const std::vector<std::wstring>& args);

}  // namespace startupctl
