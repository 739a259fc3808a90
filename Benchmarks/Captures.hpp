#pragma once

#include <cstddef>
#include <string>

#include <fmt/format.h>

namespace quenzel::benchmarks {

/// Text as ps prints it in the sampler's form, in the order of ps; every 16th process is busy.
inline std::string psCapture(std::size_t processes) {
  std::string text;
  for (std::size_t index = 0; index < processes; ++index) {
    const std::size_t pid = 100 + index * 7;
    const double cpu = index % 16 == 0 ? static_cast<double>((index * 37) % 400) / 4 : 0.0;
    text += fmt::format(
        "{:>7} {:>7} {:>4.1f} {:>4.1f} /usr/lib/vendor{}/service-{} --identifier={} --type=renderer\n", pid,
        pid / 2, cpu, static_cast<double>(index % 30) / 10, index % 9, index, index * 31);
  }
  return text;
}

/// Text as `powermetrics --show-all` prints it, about 400 bytes a task row.
inline std::string powermetricsCapture(std::size_t tasks) {
  std::string text =
      "Machine model: Mac15,3\nOS version: 23F79\n\n*** Sampled system activity (1002.06ms elapsed) ***\n\n"
      "*** Running tasks ***\n\n";
  text +=
      fmt::format("{:<34} {:<6} {:<9} {:<9} {:<6} {:<26} {:<26} {:<26} {:<200} {:<9} {}\n", "Name", "ID",
                  "CPU ms/s", "samp ms/s", "User%", "Deadlines (<2 ms, 2-5 ms)", "Wakeups (Intr, Pkg idle)",
                  "Page ins (Faults, Reads)", "Bytes and packets", "GPU ms/s", "Energy Impact");
  for (std::size_t index = 0; index < tasks; ++index) {
    const double cpu = index % 16 == 0 ? static_cast<double>((index * 37) % 4000) / 4 : 0.0;
    text +=
        fmt::format("{:<34} {:<6} {:<9.2f} {:<9.2f} {:<6.2f} {:<26} {:<26} {:<26} {:<200} {:<9.2f} {:.2f}\n",
                    fmt::format("  com.vendor.service-{}", index), 100 + index * 7, cpu, cpu, 54.3,
                    "0.00    0.00", "1.99    0.00", "0.00    0.00",
                    "0.00   0.00   0.00   0.00   4096.00   0.00   12.00   3.00", 0.0, cpu / 10);
  }
  text += fmt::format("{:<34} {:<6} {:<9.2f}\n\n**** Processor usage ****\n\n", "ALL_TASKS", -2, 8123.5);
  text +=
      "CPU Power: 2345 mW\nGPU Power: 120 mW\nANE Power: 0 mW\nCombined Power (CPU + GPU + ANE): 2465 mW\n";
  return text;
}

}  // namespace quenzel::benchmarks
