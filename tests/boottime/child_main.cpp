// A process for the tracking tests to follow: runs until the named event given as its only
// argument is set, or 30 s at most.
#include <windows.h>

#include "common/unique_handle.h"

int wmain(int argc, wchar_t** argv) {
  if (argc < 2) return 2;
  ky::unique_handle done(::OpenEventW(SYNCHRONIZE, FALSE, argv[1]));
  if (!done) return 3;
  return ::WaitForSingleObject(done.get(), 30000) == WAIT_OBJECT_0 ? 0 : 4;
}
