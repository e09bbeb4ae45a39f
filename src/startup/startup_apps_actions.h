// What Disable, Delay and Enable do the same for every kind of entry: each item logged, the
// kind's own step run, the change recorded in the store (or undone when it cannot be), and 31
// when any item failed.
#pragma once

#include <functional>

#include "startup/startup_item.h"

namespace startup {

class CStartupAppsActions : public IStartupAppsActions {
 public:
  [[nodiscard]] std::uint8_t Disable(const StartupItemList& items, bool updateStorage) final;
  [[nodiscard]] std::uint8_t Enable(const StartupItemList& items, bool updateStorage) final;
  [[nodiscard]] std::uint8_t Delay(const StartupItemList& items, bool updateStorage) final;

 protected:
  // Puts an entry back as it was before TakeOut changed it.
  using Undo = std::function<void()>;

  // `className` names the traces ("Class::Disable"); `unsavedFormat` is the line logged, with
  // the location, when a change is undone because the store could not record it.
  CStartupAppsActions(const wchar_t* className, const char* disabledCategory, const char* delayedCategory,
                      const wchar_t* unsavedFormat = L"FAILED %s")
      : className_(className),
        disabledCategory_(disabledCategory),
        delayedCategory_(delayedCategory),
        unsavedFormat_(unsavedFormat) {}

  // Takes an actionable entry out of the startup and returns how to put it back; an empty Undo
  // when it failed, with `failure` the line to log with the location (null: nothing to log).
  virtual Undo TakeOut(StartupItem& item, const wchar_t*& failure) = 0;
  // Brings an entry back into the startup; false when it failed, logged under `function`.
  virtual bool PutBack(StartupItem& item, const wchar_t* function) = 0;

 private:
  std::uint8_t SetAside(const StartupItemList& items, bool updateStorage, const char* category, const wchar_t* method,
                        const wchar_t* format);

  const wchar_t* className_;
  const char* disabledCategory_;
  const char* delayedCategory_;
  const wchar_t* unsavedFormat_;
};

}  // namespace startup
