// The list a GetBootImpact query hands to the plug-in: entries are encoded into the reply
// payload as they are added, so a long answer is never held twice (as records and as bytes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "boottime/comm/payload.h"
#include "lumera/boottime.h"

namespace boottime {

class CEncodedImpactList final : public ky::IList<ProcessImpact> {
 public:
  // Appends an empty impact list (a zero count) to `payload`, which must outlive the list;
  // every Add extends that list in place.
  explicit CEncodedImpactList(CPayloadWriter& payload);
  CEncodedImpactList(const CEncodedImpactList&) = delete;
  CEncodedImpactList& operator=(const CEncodedImpactList&) = delete;

  std::uint32_t Count() const override { return count_; }
  void Clear() override;
  void Add(const ProcessImpact& item) override;
  // Enumerating decodes the entries once; the records live until the list next changes.
  ky::ListEnum<ProcessImpact>* Enum() override;
  ky::ConstListEnum<ProcessImpact>* ConstEnum() const override;

 private:
  void Decode() const;

  CPayloadWriter& payload_;
  std::size_t start_;
  std::uint32_t count_ = 0;
  mutable ky::List<ProcessImpact> decoded_;
  mutable bool decodedValid_ = false;
};

}  // namespace boottime

namespace boottime {

// The list a GetBootHistory query hands to the plug-in: records are encoded into the reply as
// they are added (oldest first), and when the reply would pass `maxBytes` the oldest go.
class CEncodedHistory final : public ky::IList<std::string> {
 public:
  // Appends an empty history (a zero count) to `payload`, which must outlive the list.
  CEncodedHistory(CPayloadWriter& payload, std::size_t maxBytes);
  CEncodedHistory(const CEncodedHistory&) = delete;
  CEncodedHistory& operator=(const CEncodedHistory&) = delete;

  std::uint32_t Count() const override { return static_cast<std::uint32_t>(sizes_.size()); }
  void Clear() override;
  // A record that alone passes the bound is left out.
  void Add(const std::string& item) override;
  ky::ListEnum<std::string>* Enum() override;
  ky::ConstListEnum<std::string>* ConstEnum() const override;

 private:
  void Decode() const;

  CPayloadWriter& payload_;
  std::size_t start_;
  std::size_t maxBytes_;
  std::vector<std::size_t> sizes_;  // encoded size of each record, oldest first
  mutable ky::List<std::string> decoded_;
};

}  // namespace boottime
