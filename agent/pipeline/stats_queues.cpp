// The process-wide sample queues.
#include "pipeline/stats_queues.h"

std::vector<_stats_info> g_vecUpper;
std::vector<string_stats_info_st> g_vecStringUpper;
std::vector<_second_info> g_vecSecondInfo;
