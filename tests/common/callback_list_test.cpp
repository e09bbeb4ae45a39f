#include "common/callback_list.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Observer {
  int id;
};

using List = CallbackList<Observer*>;

std::vector<int> Dispatch(List& list) {
  std::vector<int> called;
  list.ForEach([&called](Observer* observer) { called.push_back(observer->id); });
  return called;
}

TEST(CallbackList, RegistrationAndRemovalResults) {
  List list;
  Observer a{1};
  Observer b{2};
  EXPECT_EQ(list.Register(&a), 0u);
  EXPECT_EQ(list.Register(&a), 183u);
  EXPECT_EQ(list.Register(&a, 7), 183u);
  EXPECT_EQ(list.Count(), 1u);

  EXPECT_EQ(list.Unregister(&b), 1168u);
  EXPECT_EQ(list.Unregister(&a, 7), 1168u);
  EXPECT_EQ(list.Unregister(&a), 0u);
  EXPECT_EQ(list.Unregister(&a), 1168u);
  EXPECT_EQ(list.Register(&a), 0u);
}

TEST(CallbackList, DispatchFollowsRegistrationOrderAcrossRemovals) {
  List list;
  Observer observers[] = {{1}, {2}, {3}, {4}};
  for (auto& observer : observers) ASSERT_EQ(list.Register(&observer), 0u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{1, 2, 3, 4}));

  ASSERT_EQ(list.Unregister(&observers[1]), 0u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{1, 3, 4}));
  ASSERT_EQ(list.Unregister(&observers[0]), 0u);
  ASSERT_EQ(list.Register(&observers[1]), 0u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{3, 4, 2}));
}

}  // namespace
