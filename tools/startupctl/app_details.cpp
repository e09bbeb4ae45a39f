#include "app_details.h"

#include "startup/application.h"

namespace startupctl {

AppDetails DetailsOf(const Entry& entry) {
  AppDetails details;
  // As the module does for stored entries: the command names the file, wherever it was moved.
  startup::Application app;
  if (!app.Init(*entry.item, entry.kind, 0)) return details;
  details.found = true;
  details.description = app.description;
  details.company = app.company;
  details.product = app.product;
  details.qid = app.qid;
  details.disabledBySystem = app.disabledBySystem;
  return details;
}

}  // namespace startupctl
