// ParseSecondArgs: splits a second-phase job's output into its arguments.
//
// The separator is "|". Every piece between two separators is a token, empty
// ones included, and what follows the last separator is always a token, even
// when empty: "5|7" is {5, 7}, "5|7|" is {5, 7, ""}, a text without "|" is
// itself the one token. Nothing is trimmed (a trailing newline stays in the
// last token), because the second-phase command receives the tokens as the
// job wrote them.
//
// Pure function; any thread.
#ifndef OVITA2_AGENT_PIPELINE_PARSE_SECOND_ARGS_H
#define OVITA2_AGENT_PIPELINE_PARSE_SECOND_ARGS_H

#include <string>
#include <vector>

std::vector<std::string> ParseSecondArgs(std::string text);

#endif  // OVITA2_AGENT_PIPELINE_PARSE_SECOND_ARGS_H
