#include "loadusage_window.h"

#include <algorithm>

namespace host {

void LoadWindow::Add(double percent) {
  values_.push_back(std::clamp(percent, 0.0, 100.0));
  while (values_.size() > capacity_) values_.pop_front();
}

lumera::LoadUsageFigures LoadWindow::Figures() const {
  lumera::LoadUsageFigures figures;
  figures.windowSeconds = static_cast<std::uint32_t>(capacity_);
  if (values_.empty()) return figures;
  double sum = 0;
  figures.minimum = values_.front();
  figures.maximum = values_.front();
  for (double v : values_) {
    figures.minimum = std::min(figures.minimum, v);
    figures.maximum = std::max(figures.maximum, v);
    sum += v;
  }
  figures.average = sum / static_cast<double>(values_.size());
  figures.samples = static_cast<std::uint32_t>(values_.size());
  return figures;
}

double BusyPercent(std::uint64_t idleBefore, std::uint64_t idleNow, std::uint64_t totalBefore,
                   std::uint64_t totalNow) {
  if (totalNow <= totalBefore) return 0.0;
  const double total = static_cast<double>(totalNow - totalBefore);
  const double idle = idleNow >= idleBefore ? static_cast<double>(idleNow - idleBefore) : 0.0;
  return std::clamp(100.0 * (1.0 - idle / total), 0.0, 100.0);
}

}  // namespace host
