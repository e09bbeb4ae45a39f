// The module's ProgramData folders: made with the service's own owner and access list, an
// existing one with a looser list set right, a file or link in the folder's place refused.
// Wine stores access lists without enforcing them, so what is checked here is the descriptor
// read back.
#include <gtest/gtest.h>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <string>

#include "common/service_folder.h"
#include "common/unique_handle.h"
#include "support/programs.h"
#include "support/scratch_folder.h"

namespace {

// The owner and access list of `path` as SDDL, read with GetNamedSecurityInfoW.
std::wstring ReadBack(const std::wstring& path) {
  bool secure = false;
  std::wstring sddl;
  return ky::CheckServiceFolder(path, secure, sddl) == 0 ? sddl : L"unreadable";
}

// The service's descriptor as Windows writes it back out.
std::wstring Canonical(const wchar_t* sddl) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &raw, nullptr)) return L"bad";
  ky::unique_local descriptor(raw);
  wchar_t* text = nullptr;
  if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(
          raw, SDDL_REVISION_1, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &text, nullptr)) {
    return L"bad";
  }
  ky::unique_local owner(text);
  return text;
}

std::uint32_t SetDescriptor(const std::wstring& path, const wchar_t* sddl) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &raw, nullptr)) return ::GetLastError();
  ky::unique_local descriptor(raw);
  PSID owner = nullptr;
  PACL list = nullptr;
  BOOL defaulted = FALSE;
  BOOL present = FALSE;
  ::GetSecurityDescriptorOwner(raw, &owner, &defaulted);
  ::GetSecurityDescriptorDacl(raw, &present, &list, &defaulted);
  return ::SetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), SE_FILE_OBJECT,
                                 OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION,
                                 owner, nullptr, list, nullptr);
}

using testsupport::Narrow;

TEST(ServiceFolder, OnlyAnOwnerAndListAsStrictAsTheServicesAreKept) {
  struct Case {
    const char* what;
    const wchar_t* sddl;
    bool kept;
  };
  const Case kCases[] = {
      {"the service's own", ky::kServiceFolderSddl, true},
      {"stricter, owned by SYSTEM", L"O:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", true},
      {"Users denied", L"O:BAD:P(A;OICI;FA;;;SY)(D;OICI;FA;;;BU)", true},
      {"owned by Users", L"O:BUD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", false},
      {"Users may write", L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1301bf;;;BU)", false},
      {"inherits from above", L"O:SYD:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", false},
      {"everyone has full control", L"O:BAD:P(A;OICI;FA;;;WD)", false},
      {"no access list at all", L"O:BA", false},
  };
  for (const Case& c : kCases) {
    PSECURITY_DESCRIPTOR raw = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(c.sddl, SDDL_REVISION_1, &raw, nullptr)) << c.what;
    ky::unique_local descriptor(raw);
    EXPECT_EQ(ky::IsServiceDescriptor(raw), c.kept) << c.what;
  }
}

TEST(ServiceFolder, IsMadeOrSetRightAndAFileInItsPlaceIsRefused) {
  testsupport::ScratchFolder scratch;
  const std::wstring folder = scratch.file(L"velora");
  ky::FolderResult result;
  ASSERT_EQ(ky::EnsureServiceFolder(folder, result), 0u);
  EXPECT_EQ(result.state, ky::FolderState::kCreated);
  // Windows gives back the descriptor set; Wine 8 answers one made from the Unix mode bits
  // (measured: owner the Unix user, full control for SYSTEM and that user), which the second
  // call then sets right.
  const bool keptAsSet = ReadBack(folder) == Canonical(ky::kServiceFolderSddl);
  ASSERT_EQ(SetDescriptor(folder, L"O:BUD:(A;OICI;FA;;;WD)"), 0u);
  const std::wstring found = ReadBack(folder);
  ASSERT_EQ(ky::EnsureServiceFolder(folder, result), 0u);
  EXPECT_EQ(result.state, ky::FolderState::kRepaired);
  EXPECT_EQ(result.found, found) << "what was found is reported for the log";
  if (keptAsSet) {
    EXPECT_EQ(Narrow(ReadBack(folder)), Narrow(Canonical(ky::kServiceFolderSddl))) << "the descriptor read back is the one set";
  }

  const std::wstring file = testsupport::WriteFileBytes(scratch.file(L"file"));
  EXPECT_EQ(ky::EnsureServiceFolder(file, result), static_cast<std::uint32_t>(ERROR_DIRECTORY));
  EXPECT_EQ(ky::EnsureServiceFolder(scratch.file(L"no\\such"), result), static_cast<std::uint32_t>(ERROR_PATH_NOT_FOUND));
}

TEST(ServiceFolder, IsMadeAsTheProcessWhileTheThreadImpersonatesAndTheImpersonationResumesAfter) {
  testsupport::ScratchFolder scratch;
  ASSERT_TRUE(::ImpersonateSelf(SecurityImpersonation));
  ky::FolderResult result;
  bool revertedInside = false;
  {
    const ky::ScopedProcessIdentity self;
    ky::unique_handle token;
    revertedInside = self.WasImpersonating() && !::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put());
  }
  const std::uint32_t made = ky::EnsureServiceFolder(scratch.file(L"cache"), result);
  ky::unique_handle after;
  const bool impersonatingAfter = ::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, after.put()) != FALSE;
  ::RevertToSelf();
  EXPECT_TRUE(revertedInside) << "the thread ran as the process inside the scope";
  EXPECT_EQ(made, 0u);
  EXPECT_TRUE(impersonatingAfter) << "the caller's impersonation is back";
}

}  // namespace
