// A work item for the host's serial execution that calls a member function with three
// stored arguments.
#pragma once

#include "lumera/ky_base.h"

template <class Target, class A1, class A2, class A3>
class EqWorkItemMember3 final : public EqWorkItem {
 public:
  using Member = void (Target::*)(A1, A2, A3);

  EqWorkItemMember3(Target* target, A1 a1, A2 a2, A3 a3, Member member)
      : target_(target), a1_(a1), a2_(a2), a3_(a3), member_(member) {}

  void Release() override { delete this; }
  void Execute() override { (target_->*member_)(a1_, a2_, a3_); }

 private:
  Target* target_;
  A1 a1_;
  A2 a2_;
  A3 a3_;
  Member member_;
};
