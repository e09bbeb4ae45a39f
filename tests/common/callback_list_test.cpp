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

TEST(CallbackList, RegistrationResultsAndDispatchOrderAcrossRemovals) {
  List list;
  Observer observers[] = {{1}, {2}, {3}, {4}};
  Observer& a = observers[0];
  for (auto& observer : observers) ASSERT_EQ(list.Register(&observer), 0u);
  EXPECT_EQ(list.Register(&a), 183u);
  EXPECT_EQ(list.Register(&a, 7), 183u);
  EXPECT_EQ(list.Count(), 4u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{1, 2, 3, 4}));

  Observer stranger{9};
  EXPECT_EQ(list.Unregister(&stranger), 1168u);
  EXPECT_EQ(list.Unregister(&a, 7), 1168u);
  ASSERT_EQ(list.Unregister(&observers[1]), 0u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{1, 3, 4}));
  ASSERT_EQ(list.Unregister(&a), 0u);
  EXPECT_EQ(list.Unregister(&a), 1168u);
  ASSERT_EQ(list.Register(&observers[1]), 0u);
  EXPECT_EQ(Dispatch(list), (std::vector<int>{3, 4, 2}));
}

}  // namespace
