// The application behind a listed entry, from the same Application code the module reports
// with: the started file's description, company, product and identity, and whether Windows
// itself keeps the entry from starting.
#pragma once

#include <string>

#include "startup_catalog.h"

namespace startupctl {

struct AppDetails {
  bool found = false;  // false when the entry's file or its version resource is missing
  std::wstring description;
  std::wstring company;
  std::wstring product;
  std::wstring qid;
  bool disabledBySystem = false;
};

AppDetails DetailsOf(const Entry& entry);

}  // namespace startupctl
