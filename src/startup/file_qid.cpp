#include "startup/file_qid.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <vector>

#include "common/log.h"

namespace startup {
namespace {

// The library is always told 33 bytes; the buffer has that many although only 32 are written.
constexpr std::uint32_t kQidBufferBytes = 33;

// Creation is guarded by a spin lock rather than a static local so that the first caller's
// Init, which loads a library, never runs under the run-time's initialisation lock.
std::atomic<bool> g_creating{false};
std::atomic<CFileQID*> g_instance{nullptr};

}  // namespace

CFileQID& CFileQID::Instance() {
  CFileQID* instance = g_instance.load(std::memory_order_acquire);
  if (instance != nullptr) return *instance;
  while (g_creating.exchange(true, std::memory_order_acquire)) ::SwitchToThread();
  instance = g_instance.load(std::memory_order_acquire);
  if (instance == nullptr) {
    // Lives until the process ends: applications may be built on any thread until then.
    instance = new CFileQID();
    (void)instance->Init();
    g_instance.store(instance, std::memory_order_release);
  }
  g_creating.store(false, std::memory_order_release);
  return *instance;
}

bool CFileQID::Init() {
  KY_TRACE(L"CFileQID::Init");
  const std::uint32_t loaded = library_.Load(ky::SiblingPath(libraryName_));
  if (loaded != 0) {
    KY_LOG(logging::kLevelError, L"Failed LoadLibrary KYFastDB.dll 0x%x", loaded);
    return false;
  }
  const std::uint32_t bound = library_.Bind({ky::BindAs(kyfastdb::kGetFileDataName, getFileData_)});
  if (bound != 0) {
    KY_LOG(logging::kLevelError, L"Failed GetProcAddress FastDBGetFileData 0x%x", bound);
    library_.Free();
    return false;
  }
  return true;
}

bool CFileQID::Get(const std::wstring& path, std::wstring& qid) const {
  if (path.empty() || getFileData_ == nullptr) return false;
  std::vector<wchar_t> copy(path.begin(), path.end());
  copy.push_back(L'\0');
  std::array<std::uint8_t, kQidBufferBytes> buffer{};
  const std::uint64_t result = getFileData_(copy.data(), kyfastdb::kOpenByPath, buffer.data(), kQidBufferBytes);
  if (static_cast<std::uint32_t>(result) != 0) return false;
  qid = HexDigits(buffer.data(), kyfastdb::kSha256Bytes);
  return true;
}

std::wstring HexDigits(const std::uint8_t* bytes, std::size_t count) {
  static constexpr wchar_t kDigits[] = L"0123456789abcdef";
  std::wstring text;
  text.reserve(count * 2);
  for (std::size_t i = 0; i < count; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0F]);
  }
  return text;
}

}  // namespace startup
