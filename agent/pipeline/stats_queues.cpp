// The process-wide sample queues.
#include "pipeline/stats_queues.h"

#include <cmath>
#include <cstdlib>
#include <limits>

std::vector<_stats_info> g_vecUpper;
std::vector<string_stats_info_st> g_vecStringUpper;
std::vector<_second_info> g_vecSecondInfo;

// A NaN is 0 too, and an infinite or huge value is held at the int64 range,
// so that no conversion is ever undefined.
int64_t TenthsOf(const std::string& output) {
  double tenths = static_cast<double>(std::strtof(output.c_str(), nullptr)) * 10.0;
  if (std::isnan(tenths)) return 0;
  if (tenths >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
  if (tenths <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(tenths);
}
