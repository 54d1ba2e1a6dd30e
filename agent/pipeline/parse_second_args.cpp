// ParseSecondArgs: splits a second-phase job's output into its arguments.
#include "pipeline/parse_second_args.h"

std::vector<std::string> ParseSecondArgs(std::string text) {
  std::vector<std::string> tokens;
  std::string::size_type start = 0;
  for (;;) {
    std::string::size_type bar = text.find('|', start);
    if (bar == std::string::npos) break;
    tokens.push_back(text.substr(start, bar - start));
    start = bar + 1;
  }
  tokens.push_back(text.substr(start));
  return tokens;
}
