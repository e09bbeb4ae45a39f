#include "boottime/comm/encoded_impact_list.h"

namespace boottime {

CEncodedImpactList::CEncodedImpactList(CPayloadWriter& payload) : payload_(payload), start_(payload.Size()) {
  payload_.WriteU32(0);
}

void CEncodedImpactList::Clear() {
  payload_.Truncate(start_);
  payload_.WriteU32(0);
  count_ = 0;
  decodedValid_ = false;
}

void CEncodedImpactList::Add(const ProcessImpact& item) {
  payload_.WriteImpact(item);
  payload_.PatchU32(start_, ++count_);
  decodedValid_ = false;
}

void CEncodedImpactList::Decode() const {
  if (decodedValid_) return;
  decoded_.Clear();
  CPayloadReader reader(payload_.Data() + start_, payload_.Size() - start_);
  // The bytes were written by Add, so they always read back.
  (void)reader.ReadImpactList(&decoded_.Items());
  decodedValid_ = true;
}

ky::ListEnum<ProcessImpact>* CEncodedImpactList::Enum() {
  Decode();
  return decoded_.Enum();
}

ky::ConstListEnum<ProcessImpact>* CEncodedImpactList::ConstEnum() const {
  Decode();
  return static_cast<const ky::List<ProcessImpact>&>(decoded_).ConstEnum();
}

}  // namespace boottime
