// The staged user's saved hive (stageduser.exe logoff and logon): a file is taken whole or
// refused whole, never read past its end, and a hive saved, unloaded and loaded again is the
// hive it was, its registry link to the classes root included.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "common/file_bytes.h"
#include "stageduser/hive_image.h"
#include "stageduser/hive_registry.h"
#include "support/scratch_folder.h"

namespace {

using winestandins::hive::DecodeHive;
using winestandins::hive::EncodeHive;
using winestandins::hive::HiveImage;
using winestandins::hive::Key;
using winestandins::hive::Root;
using winestandins::hive::Value;

constexpr wchar_t kClassesTarget[] = L"\\Registry\\User\\S-1-5-21-1-2-3-4_Classes";

std::vector<BYTE> Bytes(std::initializer_list<int> values) { return std::vector<BYTE>(values.begin(), values.end()); }

std::vector<BYTE> Text(const std::wstring& text, bool multi = false) {
  std::wstring stored = text + L'\0';
  if (multi) stored += L'\0';
  const auto* bytes = reinterpret_cast<const BYTE*>(stored.data());
  return std::vector<BYTE>(bytes, bytes + stored.size() * sizeof(wchar_t));
}

// Every value type a hive holds, a link, an empty key and both roots.
HiveImage SampleHive(const std::wstring& sid) {
  HiveImage image;
  image.sid = sid;
  image.keys.push_back({Root::kUser, L"", {{L"", REG_SZ, Text(L"default")}}, L""});
  image.keys.push_back({Root::kUser, L"Empty", {}, L""});
  image.keys.push_back({Root::kUser, L"Software", {}, L""});
  image.keys.push_back({Root::kUser, L"Software\\Classes", {}, L"\\Registry\\User\\" + sid + L"_Classes"});
  image.keys.push_back({Root::kUser,
                        L"Software\\Run",
                        {{L"App", REG_SZ, Text(L"\"C:\\app.exe\" /x")},
                         {L"Expand", REG_EXPAND_SZ, Text(L"%USERPROFILE%\\b.exe")},
                         {L"Multi", REG_MULTI_SZ, Text(std::wstring(L"one\0two", 7), true)},
                         {L"Word", REG_DWORD, Bytes({3, 0, 0, 0})},
                         {L"Quad", REG_QWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8})},
                         {L"Binary", REG_BINARY, Bytes({0, 255, 0, 1})},
                         {L"Nothing", REG_NONE, {}}},
                        L""});
  image.keys.push_back({Root::kClasses, L"", {}, L""});
  image.keys.push_back({Root::kClasses, L"Local Settings", {}, L""});
  image.keys.push_back({Root::kClasses, L"Local Settings\\Deep", {{L"x", REG_DWORD, Bytes({7, 0, 0, 0})}}, L""});
  return image;
}

// Values in name order: Wine lists a key's values sorted, Windows in the order they were made.
HiveImage Normalized(HiveImage image) {
  for (Key& key : image.keys) {
    std::sort(key.values.begin(), key.values.end(), [](const Value& a, const Value& b) {
      return ::CompareStringOrdinal(a.name.c_str(), -1, b.name.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    });
  }
  return image;
}

std::vector<std::uint8_t> Encoded(const HiveImage& image) {
  std::vector<std::uint8_t> bytes;
  EXPECT_TRUE(EncodeHive(image, bytes));
  return bytes;
}

bool Decodes(const std::vector<std::uint8_t>& bytes, std::size_t size) {
  HiveImage image;
  std::string reason;
  const bool decoded = DecodeHive(bytes.data(), size, image, reason);
  EXPECT_EQ(decoded, reason.empty()) << "a refusal gives its reason, a success none";
  return decoded;
}

// A body of records written by hand, sealed with a correct header, to reach the record rules
// behind the checksum.
struct Body {
  std::vector<std::uint8_t> bytes;
  std::uint32_t records = 0;
  Body& U8(int v) {
    bytes.push_back(static_cast<std::uint8_t>(v));
    return *this;
  }
  Body& U32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  Body& Chars(const std::wstring& text) {
    U32(static_cast<std::uint32_t>(text.size()));
    for (const wchar_t c : text) U8(c & 0xFF).U8(c >> 8);
    return *this;
  }
  Body& Record(int kind) {
    ++records;
    return U8(kind);
  }
  Body& Sid() { return Record(0).Chars(L"S-1-5-21-1-2-3-4"); }
  Body& KeyRecord(const std::wstring& path, int root = 0) { return Record(1).U8(root).Chars(path); }
  Body& Link(const std::wstring& path, const std::wstring& target) { return Record(3).U8(0).Chars(path).Chars(target); }
  std::vector<std::uint8_t> Sealed(std::uint32_t claimedRecords) const {
    std::vector<std::uint8_t> file(winestandins::hive::kMagic, winestandins::hive::kMagic + 8);
    Body header;
    header.U32(winestandins::hive::kVersion).U32(claimedRecords);
    const std::uint64_t size = bytes.size();
    const std::uint64_t sum = winestandins::hive::Checksum(bytes.data(), bytes.size());
    header.U32(static_cast<std::uint32_t>(size)).U32(static_cast<std::uint32_t>(size >> 32));
    header.U32(static_cast<std::uint32_t>(sum)).U32(static_cast<std::uint32_t>(sum >> 32));
    file.insert(file.end(), header.bytes.begin(), header.bytes.end());
    file.insert(file.end(), bytes.begin(), bytes.end());
    return file;
  }
  std::vector<std::uint8_t> Sealed() const { return Sealed(records); }
};

TEST(SavedHive, RoundTripsEveryValueTypeLinkAndRoot) {
  const HiveImage image = SampleHive(L"S-1-5-21-1-2-3-4");
  const std::vector<std::uint8_t> bytes = Encoded(image);
  HiveImage decoded;
  std::string reason;
  ASSERT_TRUE(DecodeHive(bytes.data(), bytes.size(), decoded, reason)) << reason;
  EXPECT_EQ(decoded, image);
}

TEST(SavedHive, RefusesEveryTruncationExtensionAndFlippedByte) {
  std::vector<std::uint8_t> bytes = Encoded(SampleHive(L"S-1-5-21-1-2-3-4"));
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(Decodes(bytes, size)) << "truncated to " << size << " of " << bytes.size() << " bytes";
  }
  bytes.push_back(0);
  EXPECT_FALSE(Decodes(bytes, bytes.size())) << "one byte more than the header counts";
  bytes.pop_back();
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    bytes[at] ^= 0x10;
    EXPECT_FALSE(Decodes(bytes, bytes.size())) << "byte " << at << " changed";
    bytes[at] ^= 0x10;
  }
  EXPECT_TRUE(Decodes(bytes, bytes.size()));
}

TEST(SavedHive, RefusesSealedBodiesThatBreakTheRecordRules) {
  const std::wstring longName(winestandins::hive::kMaxKeyNameChars + 1, L'k');
  const struct {
    const char* what;
    std::vector<std::uint8_t> file;
  } cases[] = {
      {"a key before the SID", Body().KeyRecord(L"a").Sealed()},
      {"a second SID", Body().Sid().Sid().Sealed()},
      {"a value outside any key", Body().Sid().Record(2).Chars(L"v").U32(REG_DWORD).U32(0).Sealed()},
      {"a value after a link", Body().Sid().Link(L"l", kClassesTarget).Record(2).Chars(L"v").U32(REG_NONE).U32(0).Sealed()},
      {"a key below a link", Body().Sid().Link(L"l", kClassesTarget).KeyRecord(L"l\\k").Sealed()},
      {"a link to outside the registry", Body().Sid().Link(L"l", L"C:\\x").Sealed()},
      {"a link to the machine's keys", Body().Sid().Link(L"l", L"\\Registry\\Machine\\Software").Sealed()},
      {"a link to another user's hive", Body().Sid().Link(L"l", L"\\Registry\\User\\S-1-5-21-1-2-3-45").Sealed()},
      {"a link beside the classes root", Body().Sid().Link(L"l", std::wstring(kClassesTarget) + L"X").Sealed()},
      {"an unknown kind", Body().Sid().Record(9).Sealed()},
      {"a third root", Body().Sid().KeyRecord(L"a", 2).Sealed()},
      {"an empty key name", Body().Sid().KeyRecord(L"a\\\\b").Sealed()},
      {"a leading backslash", Body().Sid().KeyRecord(L"\\a").Sealed()},
      {"a key name over 255 characters", Body().Sid().KeyRecord(longName).Sealed()},
      {"a length over the limit", Body().Sid().Record(1).U8(0).U32(0xFFFFFFFF).Sealed()},
      {"a length beyond the file", Body().Sid().Record(1).U8(0).U32(1000).Chars(L"a").Sealed()},
      {"value data over the limit", Body().Sid().KeyRecord(L"a").Record(2).Chars(L"v").U32(REG_BINARY)
                                        .U32(winestandins::hive::kMaxValueBytes + 1).Sealed()},
      {"more records counted than written", Body().Sid().KeyRecord(L"a").Sealed(3)},
      {"fewer records counted than written", Body().Sid().KeyRecord(L"a").Sealed(1)},
      {"no records at all", Body().Sealed()},
  };
  for (const auto& test : cases) {
    EXPECT_FALSE(Decodes(test.file, test.file.size())) << test.what;
  }
  const std::vector<std::uint8_t> wellFormed = Body().Sid().KeyRecord(L"a\\b").Link(L"l", kClassesTarget).Sealed();
  EXPECT_TRUE(Decodes(wellFormed, wellFormed.size())) << "the hand-written records themselves are well formed";
}

TEST(SavedHive, EncoderRefusesWhatTheDecoderWould) {
  std::vector<std::uint8_t> bytes;
  HiveImage image = SampleHive(L"S-1-5-21-1-2-3-4");
  image.keys[3].values.push_back({L"v", REG_NONE, {}});
  EXPECT_FALSE(EncodeHive(image, bytes)) << "a link with a value";
  image = SampleHive(L"not a SID");
  EXPECT_FALSE(EncodeHive(image, bytes)) << "a SID that is not one";
  image = SampleHive(L"S-1-5-21-1-2-3-4");
  image.keys[1].path = L"Empty\\";
  EXPECT_FALSE(EncodeHive(image, bytes)) << "a key path ending in a backslash";
  EXPECT_TRUE(bytes.empty()) << "the output stays untouched on refusal";
}

// A hive of its own below HKEY_USERS, with a SID no other test uses, unloaded afterwards.
class StagedHive : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(winestandins::hive::UnloadHive(sid_), 0u); }

  DWORD ReadThroughLink() const {
    DWORD value = 0;
    DWORD size = sizeof value;
    const std::wstring key = sid_ + L"\\Software\\Classes\\Local Settings\\Deep";
    const LSTATUS status = ::RegGetValueW(HKEY_USERS, key.c_str(), L"x", RRF_RT_REG_DWORD, nullptr, &value, &size);
    return status == ERROR_SUCCESS ? value : 0;
  }

  const std::wstring sid_ = L"S-1-5-21-7-7-7-" + std::to_wstring(::GetCurrentProcessId());
  testsupport::ScratchFolder folder_;
};

TEST_F(StagedHive, SavedUnloadedAndLoadedAgainIsTheSameHiveWithItsLink) {
  ASSERT_EQ(winestandins::hive::RestoreHive(SampleHive(sid_)), 0u);
  EXPECT_EQ(ReadThroughLink(), 7u) << "the classes root read through HKEY_USERS\\<SID>\\Software\\Classes";
  HiveImage saved;
  ASSERT_EQ(winestandins::hive::CaptureHive(sid_, saved), 0u);
  EXPECT_EQ(Normalized(saved), Normalized(SampleHive(sid_))) << "the walk keeps the link as a link and never follows it";

  const std::wstring file = folder_.file(L"NTUSER.lumera");
  ASSERT_EQ(winestandins::ReplaceFileContent(file, Encoded(saved)), 0u);
  ASSERT_EQ(winestandins::hive::UnloadHive(sid_), 0u);
  EXPECT_FALSE(winestandins::hive::HiveLoaded(sid_));
  EXPECT_EQ(ReadThroughLink(), 0u) << "unloaded, nothing of the classes root is left";

  std::vector<std::uint8_t> bytes;
  EXPECT_EQ(winestandins::ReadBoundedFile(file, 16, bytes), static_cast<DWORD>(ERROR_FILE_TOO_LARGE));
  EXPECT_TRUE(bytes.empty()) << "a file over the bound is not read at all";
  ASSERT_EQ(winestandins::ReadBoundedFile(file, winestandins::hive::kMaxFileBytes, bytes), 0u);
  HiveImage loaded;
  std::string reason;
  ASSERT_TRUE(DecodeHive(bytes.data(), bytes.size(), loaded, reason)) << reason;
  ASSERT_EQ(winestandins::hive::RestoreHive(loaded), 0u);
  HiveImage again;
  ASSERT_EQ(winestandins::hive::CaptureHive(sid_, again), 0u);
  EXPECT_EQ(Normalized(again), Normalized(saved));
  EXPECT_EQ(ReadThroughLink(), 7u) << "the link made again at load";
}

}  // namespace
