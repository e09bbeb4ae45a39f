// The list a GetBootImpact query hands to the plug-in: entries are encoded into the reply
// payload as they are added, so a long answer is never held twice (as records and as bytes).
#pragma once

#include <cstddef>
#include <cstdint>

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
