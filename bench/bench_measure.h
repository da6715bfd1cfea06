// Small helpers the benchmarks that time rounds themselves share: a count from the
// environment, a monotonic clock in microseconds and the median of a set of figures.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

// The positive number in environment variable `name`, else `fallback`.
inline int envCount(const char* name, int fallback) {
  const char* text = std::getenv(name);
  int value = text != nullptr ? std::atoi(text) : 0;
  return value > 0 ? value : fallback;
}

inline double nowUs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  size_t n = values.size();
  return n == 0 ? 0 : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}
