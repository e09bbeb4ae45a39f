#include "stageduser/hive_image.h"

#include <cstring>
#include <cwctype>
#include <utility>


namespace winestandins::hive {
namespace {

enum RecordKind : std::uint8_t { kSidRecord = 0, kKeyRecord = 1, kValueRecord = 2, kLinkRecord = 3 };

constexpr std::uint64_t kFnvOffset = 14695981039346656037ull;
constexpr std::uint64_t kFnvPrime = 1099511628211ull;
constexpr std::size_t kChecksumOffset = 24;
constexpr wchar_t kClassesRootSuffix[] = L"_Classes";

bool IsSidText(const std::wstring& sid) {
  if (sid.size() < 3 || sid.size() > kMaxSidChars || sid.compare(0, 2, L"S-") != 0) return false;
  for (std::size_t i = 2; i < sid.size(); ++i) {
    if (!std::iswdigit(sid[i]) && sid[i] != L'-') return false;
  }
  return true;
}

bool SameText(const std::wstring& a, std::size_t count, const std::wstring& b) {
  return count <= a.size() && count <= b.size() &&
         ::CompareStringOrdinal(a.c_str(), static_cast<int>(count), b.c_str(), static_cast<int>(count), TRUE) == CSTR_EQUAL;
}

// True when `text` is `root` itself or a key below it, compared without case.
bool AtOrBelow(const std::wstring& text, const std::wstring& root) {
  return SameText(text, root.size(), root) && (text.size() == root.size() || text[root.size()] == L'\\');
}

// "\Registry\User\<sid>" or "...\<sid>_Classes", or a key below either: the user's own hive only.
bool IsLinkTarget(const std::wstring& target, const std::wstring& sid) {
  const std::wstring own = kLinkTargetPrefix + sid;
  return target.size() <= kMaxPathChars && target.find(L'\0') == std::wstring::npos &&
         (AtOrBelow(target, own) || AtOrBelow(target, own + kClassesRootSuffix));
}

// True when `path` of `root` is a link of `links` or lies below one.
bool BelowLink(const std::vector<std::pair<Root, std::wstring>>& links, Root root, const std::wstring& path) {
  for (const auto& [linkRoot, link] : links) {
    if (linkRoot == root && AtOrBelow(path, link)) return true;
  }
  return false;
}

class Writer {
 public:
  void U8(std::uint8_t v) { bytes_.push_back(v); }
  void U32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  void U64(std::uint64_t v) {
    for (int i = 0; i < 8; ++i) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  void Text(const std::wstring& text) {
    U32(static_cast<std::uint32_t>(text.size()));
    for (const wchar_t c : text) {
      bytes_.push_back(static_cast<std::uint8_t>(c & 0xFF));
      bytes_.push_back(static_cast<std::uint8_t>((c >> 8) & 0xFF));
    }
  }
  void Bytes(const std::vector<BYTE>& data) {
    U32(static_cast<std::uint32_t>(data.size()));
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  }
  std::vector<std::uint8_t>& Out() { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
};

// Reads forward through a buffer; every read first checks what is left, so a length field
// can never make it allocate or read beyond the input.
class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
  std::size_t Left() const { return left_; }

  bool U8(std::uint8_t& v) { return Little(v); }
  bool U32(std::uint32_t& v) { return Little(v); }
  bool U64(std::uint64_t& v) { return Little(v); }
  bool Text(std::uint32_t maxChars, std::wstring& text) {
    std::uint32_t chars = 0;
    if (!U32(chars) || chars > maxChars || left_ / 2 < chars) return false;
    text.resize(chars);
    for (std::uint32_t i = 0; i < chars; ++i) {
      text[i] = static_cast<wchar_t>(data_[2 * i] | (data_[2 * i + 1] << 8));
    }
    Skip(2 * static_cast<std::size_t>(chars));
    return true;
  }
  bool Bytes(std::uint32_t maxBytes, std::vector<BYTE>& data) {
    std::uint32_t size = 0;
    if (!U32(size) || size > maxBytes || left_ < size) return false;
    data.assign(data_, data_ + size);
    Skip(size);
    return true;
  }

 private:
  // An unsigned little-endian integer of its own width.
  template <class Unsigned>
  bool Little(Unsigned& v) {
    if (left_ < sizeof(Unsigned)) return false;
    v = 0;
    for (std::size_t i = 0; i < sizeof(Unsigned); ++i) {
      v |= static_cast<Unsigned>(static_cast<Unsigned>(data_[i]) << (8 * i));
    }
    Skip(sizeof(Unsigned));
    return true;
  }
  void Skip(std::size_t n) {
    data_ += n;
    left_ -= n;
  }
  const std::uint8_t* data_;
  std::size_t left_;
};

// A key or link record's root and path; false when either is malformed.
bool ReadPlace(Reader& reader, Key& key) {
  std::uint8_t root = 0;
  if (!reader.U8(root) || root > static_cast<std::uint8_t>(Root::kClasses) || !reader.Text(kMaxPathChars, key.path) ||
      !IsKeyPath(key.path)) {
    return false;
  }
  key.root = static_cast<Root>(root);
  return true;
}

bool DecodeBody(Reader& reader, std::uint32_t records, HiveImage& image, std::string& reason) {
  constexpr std::size_t kNoKey = static_cast<std::size_t>(-1);
  std::size_t current = kNoKey;  // the key record that value records belong to
  std::vector<std::pair<Root, std::wstring>> links;
  for (std::uint32_t index = 0; index < records; ++index) {
    const std::string at = "record " + std::to_string(index) + ": ";
    std::uint8_t kind = 0;
    if (!reader.U8(kind)) {
      reason = at + "truncated";
      return false;
    }
    if ((index == 0) != (kind == kSidRecord)) {
      reason = at + (index == 0 ? "the file does not start with its SID" : "a second SID");
      return false;
    }
    switch (kind) {
      case kSidRecord:
        if (!reader.Text(kMaxSidChars, image.sid) || !IsSidText(image.sid)) {
          reason = at + "not a SID";
          return false;
        }
        break;
      case kKeyRecord: {
        Key key;
        if (!ReadPlace(reader, key)) {
          reason = at + "not a key";
          return false;
        }
        if (BelowLink(links, key.root, key.path)) {
          reason = at + "a key below a link";
          return false;
        }
        current = image.keys.size();
        image.keys.push_back(std::move(key));
        break;
      }
      case kValueRecord: {
        Value value;
        if (current == kNoKey) {
          reason = at + "a value outside any key";
          return false;
        }
        std::uint32_t type = 0;
        if (!reader.Text(kMaxValueNameChars, value.name) || !reader.U32(type) ||
            !reader.Bytes(kMaxValueBytes, value.data)) {
          reason = at + "not a value";
          return false;
        }
        value.type = type;
        image.keys[current].values.push_back(std::move(value));
        break;
      }
      case kLinkRecord: {
        Key link;
        if (!ReadPlace(reader, link) || link.path.empty() || !reader.Text(kMaxPathChars, link.linkTarget) ||
            !IsLinkTarget(link.linkTarget, image.sid)) {
          reason = at + "not a link into the user's hive";
          return false;
        }
        if (BelowLink(links, link.root, link.path)) {
          reason = at + "a link below a link";
          return false;
        }
        links.emplace_back(link.root, link.path);
        image.keys.push_back(std::move(link));
        current = kNoKey;
        break;
      }
      default:
        reason = at + "unknown kind " + std::to_string(kind);
        return false;
    }
  }
  if (reader.Left() != 0) {
    reason = "bytes after the last record";
    return false;
  }
  return true;
}

}  // namespace

std::uint64_t Checksum(const std::uint8_t* data, std::size_t size) {
  std::uint64_t hash = kFnvOffset;
  for (std::size_t i = 0; i < size; ++i) {
    hash ^= data[i];
    hash *= kFnvPrime;
  }
  return hash;
}

bool IsKeyPath(const std::wstring& path) {
  if (path.size() > kMaxPathChars) return false;
  if (path.empty()) return true;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = path.find(L'\\', start);
    const std::size_t length = (end == std::wstring::npos ? path.size() : end) - start;
    if (length == 0 || length > kMaxKeyNameChars) return false;
    if (end == std::wstring::npos) break;
    start = end + 1;
  }
  return path.find(L'\0') == std::wstring::npos;
}

bool EncodeHive(const HiveImage& image, std::vector<std::uint8_t>& out) {
  if (!IsSidText(image.sid)) return false;
  std::uint64_t records = 1;
  std::vector<std::pair<Root, std::wstring>> links;
  Writer body;
  body.U8(kSidRecord);
  body.Text(image.sid);
  for (const Key& key : image.keys) {
    if (!IsKeyPath(key.path) || BelowLink(links, key.root, key.path)) return false;
    ++records;
    if (!key.linkTarget.empty()) {
      if (key.path.empty() || !key.values.empty() || !IsLinkTarget(key.linkTarget, image.sid)) return false;
      links.emplace_back(key.root, key.path);
      body.U8(kLinkRecord);
      body.U8(static_cast<std::uint8_t>(key.root));
      body.Text(key.path);
      body.Text(key.linkTarget);
      continue;
    }
    body.U8(kKeyRecord);
    body.U8(static_cast<std::uint8_t>(key.root));
    body.Text(key.path);
    for (const Value& value : key.values) {
      if (value.name.size() > kMaxValueNameChars || value.data.size() > kMaxValueBytes) return false;
      ++records;
      body.U8(kValueRecord);
      body.Text(value.name);
      body.U32(value.type);
      body.Bytes(value.data);
    }
  }
  const std::vector<std::uint8_t>& bytes = body.Out();
  if (records > kMaxRecords || bytes.size() > kMaxFileBytes - kHeaderBytes) return false;
  Writer file;
  for (const char c : kMagic) file.U8(static_cast<std::uint8_t>(c));
  file.U32(kVersion);
  file.U32(static_cast<std::uint32_t>(records));
  file.U64(bytes.size());
  file.U64(Checksum(bytes.data(), bytes.size()));
  file.Out().insert(file.Out().end(), bytes.begin(), bytes.end());
  out = std::move(file.Out());
  return true;
}

bool DecodeHive(const std::uint8_t* data, std::size_t size, HiveImage& image, std::string& reason) {
  if (data == nullptr || size < kHeaderBytes || std::memcmp(data, kMagic, sizeof kMagic) != 0) {
    reason = "not a saved hive";
    return false;
  }
  Reader header(data + sizeof kMagic, kHeaderBytes - sizeof kMagic);
  std::uint32_t version = 0;
  std::uint32_t records = 0;
  std::uint64_t bodyBytes = 0;
  std::uint64_t checksum = 0;
  (void)(header.U32(version) && header.U32(records) && header.U64(bodyBytes) && header.U64(checksum));
  if (version != kVersion) {
    reason = "version " + std::to_string(version) + " is not " + std::to_string(kVersion);
    return false;
  }
  if (size > kMaxFileBytes || bodyBytes != size - kHeaderBytes) {
    reason = "truncated or extended: the header counts " + std::to_string(bodyBytes) + " bytes, the file holds " +
             std::to_string(size - kHeaderBytes);
    return false;
  }
  if (records == 0 || records > kMaxRecords) {
    reason = "record count " + std::to_string(records) + " out of range";
    return false;
  }
  static_assert(kChecksumOffset + 8 == kHeaderBytes);
  if (Checksum(data + kHeaderBytes, size - kHeaderBytes) != checksum) {
    reason = "checksum mismatch";
    return false;
  }
  HiveImage decoded;
  Reader body(data + kHeaderBytes, size - kHeaderBytes);
  if (!DecodeBody(body, records, decoded, reason)) return false;
  image = std::move(decoded);
  return true;
}

}  // namespace winestandins::hive
