#include "output.h"

#include <windows.h>

#include <cstdio>

#include "common/text_convert.h"

namespace tool {

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

void Printer::Failure(const char* what, std::uint32_t code) const {
  if (json_) std::printf("{\"error\":%u,\"meaning\":\"%s\"}\n", code, Meaning(code));
  std::fprintf(stderr, "boottime: %s failed: %u (%s)\n", what, code, Meaning(code));
}

}  // namespace tool
