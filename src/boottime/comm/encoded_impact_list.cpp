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

namespace boottime {

CEncodedHistory::CEncodedHistory(CPayloadWriter& payload, std::size_t maxBytes)
    : payload_(payload), start_(payload.Size()), maxBytes_(maxBytes) {
  payload_.WriteU32(0);
}

void CEncodedHistory::Clear() {
  payload_.Truncate(start_);
  payload_.WriteU32(0);
  sizes_.clear();
}

void CEncodedHistory::Add(const std::string& item) {
  const std::size_t size = 4 + item.size();
  if (size + 4 > maxBytes_) return;
  std::size_t used = payload_.Size() - start_;
  if (used + size > maxBytes_) {
    // Rare: the oldest records make room, and the ones kept move to the front.
    std::size_t drop = 0;
    std::size_t dropped = 0;
    while (used - dropped + size > maxBytes_) dropped += sizes_[drop++];
    const std::vector<std::uint8_t> kept(payload_.Data() + start_ + 4 + dropped, payload_.Data() + payload_.Size());
    payload_.Truncate(start_ + 4);
    payload_.WriteRaw(kept.data(), kept.size());
    sizes_.erase(sizes_.begin(), sizes_.begin() + static_cast<std::ptrdiff_t>(drop));
  }
  payload_.WriteUtf8(item);
  sizes_.push_back(size);
  payload_.PatchU32(start_, Count());
}

void CEncodedHistory::Decode() const {
  decoded_.Clear();
  CPayloadReader reader(payload_.Data() + start_, payload_.Size() - start_);
  // The bytes were written by Add, so they always read back.
  (void)reader.ReadHistory(&decoded_);
}

ky::ListEnum<std::string>* CEncodedHistory::Enum() {
  Decode();
  return decoded_.Enum();
}

ky::ConstListEnum<std::string>* CEncodedHistory::ConstEnum() const {
  Decode();
  return static_cast<const ky::List<std::string>&>(decoded_).ConstEnum();
}

}  // namespace boottime
