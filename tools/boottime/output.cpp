#include "output.h"

#include <windows.h>

#include <cstdio>

#include "boottime/impact_rating.h"
#include "common/text_convert.h"

namespace tool {
namespace {

constexpr std::size_t kSummaryTop = 5;
constexpr double kBytesPerMb = 1024.0 * 1024.0;

double Mb(std::uint64_t bytes) { return static_cast<double>(bytes) / kBytesPerMb; }

std::string JsonImpact(const boottime::ProcessImpact& p) {
  char numbers[256];
  std::snprintf(numbers, sizeof numbers,
                "{\"pid\":%llu,\"ppid\":%llu,\"cpu_ms\":%llu,\"kernel_ms\":%u,\"user_ms\":%u,\"read_bytes\":%u,"
                "\"write_bytes\":%u,\"other_bytes\":%u,\"rating\":\"%s\",\"name\":",
                static_cast<unsigned long long>(p.pid), static_cast<unsigned long long>(p.ppid),
                static_cast<unsigned long long>(boottime::CpuMs(p)), p.kernel, p.user, p.read, p.write, p.other,
                boottime::RatingName(boottime::RateImpact(p)));
  return numbers + JsonString(p.name) + "}";
}

void ImpactRows(const std::vector<boottime::ProcessImpact>& impacts, std::size_t limit) {
  std::printf("%9s %9s %9s  %-6s  %s\n", "CPU ms", "read MB", "write MB", "impact", "image");
  for (std::size_t i = 0; i < impacts.size() && i < limit; ++i) {
    const auto& p = impacts[i];
    std::printf("%9llu %9.1f %9.1f  %-6s  %s\n", static_cast<unsigned long long>(boottime::CpuMs(p)), Mb(p.read),
                Mb(p.write), boottime::RatingName(boottime::RateImpact(p)), ky::WideToUtf8(p.name).c_str());
  }
}

}  // namespace

const char* Meaning(std::uint32_t code) {
  switch (code) {
    case boottime::kStatusNotYetKnown:
      return "not yet known";
    case boottime::kStatusNoResults:
      return "no results";
    default:
      return "Windows error";
  }
}

std::string JsonString(const std::wstring& text) {
  std::string out = "\"";
  for (char c : ky::WideToUtf8(text)) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

void Printer::BootTime(std::uint32_t ms) const {
  if (json_) {
    std::printf("{\"boot_time_ms\":%u}\n", ms);
  } else {
    std::printf("boot time: %u ms\n", ms);
  }
}

void Printer::Counters(const boottime::BootCounters& c) const {
  if (json_) {
    std::printf("{\"kernel_ms\":%u,\"user_ms\":%u,\"read_bytes\":%u,\"write_bytes\":%u,\"other_bytes\":%u}\n", c.kernel,
                c.user, c.read, c.write, c.other);
  } else {
    std::printf("kernel: %u ms\nuser: %u ms\nread: %u bytes\nwritten: %u bytes\nother: %u bytes\n", c.kernel, c.user,
                c.read, c.write, c.other);
  }
}

void Printer::Impacts(const std::vector<boottime::ProcessImpact>& impacts) const {
  if (json_) {
    std::printf("{\"impacts\":[");
    for (std::size_t i = 0; i < impacts.size(); ++i) {
      const auto& p = impacts[i];
      std::printf("%s{\"ppid\":%llu,\"pid\":%llu,\"name\":%s,\"kernel_ms\":%u,\"user_ms\":%u,\"read_bytes\":%u,"
                  "\"write_bytes\":%u,\"other_bytes\":%u}",
                  i ? "," : "", static_cast<unsigned long long>(p.ppid), static_cast<unsigned long long>(p.pid),
                  JsonString(p.name).c_str(), p.kernel, p.user, p.read, p.write, p.other);
    }
    std::printf("]}\n");
    return;
  }
  std::printf("%8s %8s %10s %10s %12s %12s %12s  %s\n", "ppid", "pid", "kernel_ms", "user_ms", "read", "written",
              "other", "image");
  for (const auto& p : impacts) {
    std::printf("%8llu %8llu %10u %10u %12u %12u %12u  %s\n", static_cast<unsigned long long>(p.ppid),
                static_cast<unsigned long long>(p.pid), p.kernel, p.user, p.read, p.write, p.other, ky::WideToUtf8(p.name).c_str());
  }
  std::printf("%zu process(es)\n", impacts.size());
}

void Printer::Disk(const boottime::DiskSpeed& s) const {
  if (json_) {
    std::printf("{\"min_hddUsage\":%.6g,\"max_hddUsage\":%.6g,\"average_hddUsage\":%.6g}\n", s.minimum, s.maximum,
                s.average);
  } else {
    std::printf("disk usage: min %.6g, max %.6g, average %.6g\n", s.minimum, s.maximum, s.average);
  }
}

void Printer::DataAnalysed(std::uint32_t status) const {
  if (json_) {
    std::printf("{\"event\":\"data_analysed\",\"status\":%u}\n", status);
  } else {
    std::printf("data analysed: status %u (%s)\n", status, status == 0 ? "results available" : Meaning(status));
  }
  std::fflush(stdout);
}

void Printer::Blame(std::vector<boottime::ProcessImpact> impacts) const {
  boottime::SortByImpact(impacts);
  if (json_) {
    std::printf("{\"processes\":[");
    for (std::size_t i = 0; i < impacts.size(); ++i) std::printf("%s%s", i ? "," : "", JsonImpact(impacts[i]).c_str());
    std::printf("]}\n");
    return;
  }
  ImpactRows(impacts, impacts.size());
  std::printf("%zu process(es)\n", impacts.size());
}

void Printer::Summary(std::uint32_t bootTimeMs, const boottime::DiskSpeed* disk,
                      std::vector<boottime::ProcessImpact> impacts) const {
  const std::size_t processCount = impacts.size();
  std::uint64_t kernel = 0, user = 0, read = 0, write = 0, other = 0;
  for (const auto& p : impacts) {
    kernel += p.kernel;
    user += p.user;
    read += p.read;
    write += p.write;
    other += p.other;
  }
  boottime::SortByImpact(impacts);
  if (impacts.size() > kSummaryTop) impacts.resize(kSummaryTop);
  if (json_) {
    std::printf("{\"boot_time_ms\":%u,\"processes\":%zu,\"total\":{\"kernel_ms\":%llu,\"user_ms\":%llu,"
                "\"read_bytes\":%llu,\"write_bytes\":%llu,\"other_bytes\":%llu},\"disk\":",
                bootTimeMs, processCount, static_cast<unsigned long long>(kernel), static_cast<unsigned long long>(user),
                static_cast<unsigned long long>(read), static_cast<unsigned long long>(write),
                static_cast<unsigned long long>(other));
    if (disk != nullptr) {
      std::printf("{\"min_hddUsage\":%.6g,\"max_hddUsage\":%.6g,\"average_hddUsage\":%.6g}", disk->minimum,
                  disk->maximum, disk->average);
    } else {
      std::printf("null");
    }
    std::printf(",\"top\":[");
    for (std::size_t i = 0; i < impacts.size(); ++i) std::printf("%s%s", i ? "," : "", JsonImpact(impacts[i]).c_str());
    std::printf("]}\n");
    return;
  }
  std::printf("boot time:   %.1f s (%u ms)\n", bootTimeMs / 1000.0, bootTimeMs);
  std::printf("processes:   %zu followed, CPU %llu ms (kernel %llu, user %llu), read %.1f MB, written %.1f MB, "
              "other %.1f MB\n",
              processCount, static_cast<unsigned long long>(kernel + user), static_cast<unsigned long long>(kernel),
              static_cast<unsigned long long>(user), Mb(read), Mb(write), Mb(other));
  if (disk != nullptr) {
    std::printf("disk usage:  min %.6g, max %.6g, average %.6g\n", disk->minimum, disk->maximum, disk->average);
  } else {
    std::printf("disk usage:  not measured\n");
  }
  std::printf("top %zu by impact:\n", impacts.size());
  ImpactRows(impacts, impacts.size());
}

void Printer::Failure(const char* what, std::uint32_t code) const {
  if (json_) std::printf("{\"error\":%u,\"meaning\":\"%s\"}\n", code, Meaning(code));
  std::fprintf(stderr, "boottime: %s failed: %u (%s)\n", what, code, Meaning(code));
}

}  // namespace tool
