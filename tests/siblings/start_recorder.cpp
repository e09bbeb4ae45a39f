// start_recorder.exe: appends one line "<pid> <ms since 1601> <LOCALAPPDATA>" to "<its own path>.starts"
// and exits, so that a test sees when, as whom and how often a copy of it was started.
#include <windows.h>

#include <cstdio>
#include <string>

int main() {
  wchar_t self[MAX_PATH] = {};
  if (::GetModuleFileNameW(nullptr, self, MAX_PATH) == 0) return 1;
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const unsigned long long ms = ((static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / 10000;
  wchar_t local[MAX_PATH] = {};
  ::GetEnvironmentVariableW(L"LOCALAPPDATA", local, MAX_PATH);
  FILE* out = _wfopen((std::wstring(self) + L".starts").c_str(), L"a");
  if (out == nullptr) return 1;
  std::fprintf(out, "%lu %llu %ls\n", ::GetCurrentProcessId(), ms, local);
  std::fclose(out);
  return 0;
}
