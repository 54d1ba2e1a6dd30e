// ovita2ctl's commands (see client_app.h).
#include "client/client_app.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>

#include "client/agent_link.h"
#include "client/read_commands.h"

namespace controlplane {
namespace {

struct SwitchOptions {
  std::string m_strAddress;
  uint32_t m_uItem = 0;
  double m_dTimeout = 5.0;
};

// Accepts plain decimal digits up to `largest`, and rewrites them without
// leading zeros: the parser would read "010" as octal 8.
CLI::Validator UnsignedDecimal(uint64_t largest) {
  return CLI::Validator(
      [largest](std::string& text) -> std::string {
        if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
          return "'" + text + "' is not an unsigned decimal number";
        }
        uint64_t value = 0;
        for (char digit : text) {
          const auto next = static_cast<uint64_t>(digit - '0');
          if (value > (largest - next) / 10) return "'" + text + "' is larger than " + std::to_string(largest);
          value = value * 10 + next;
        }
        text = std::to_string(value);
        return std::string();
      },
      "");
}

CLI::Validator Seconds(double smallest, double largest) {
  return CLI::Validator(
      [smallest, largest](std::string& text) -> std::string {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !std::isfinite(value) || value < smallest || value > largest) {
          std::ostringstream message;
          message << "'" << text << "' is not a number of seconds from " << smallest << " to " << largest;
          return message.str();
        }
        return std::string();
      },
      "");
}

const CLI::Validator kAgentAddress(
    [](std::string& text) -> std::string {
      std::string error;
      return ParseAgentAddress(text, &error) ? std::string() : error;
    },
    "");

int SwitchItem(const SwitchOptions& options, bool enable, std::ostream& out, std::ostream& err) {
  const auto timeout = std::chrono::milliseconds(static_cast<int64_t>(std::ceil(options.m_dTimeout * 1000.0)));
  SwitchOutcome outcome = SwitchRealTimeMonitor(options.m_strAddress, options.m_uItem, enable, timeout);
  const std::string item = "item " + std::to_string(options.m_uItem);
  switch (outcome.m_eKind) {
    case SwitchOutcome::Kind::kDone:
      out << item << (enable ? " enabled" : " disabled") << '\n';
      return 0;
    case SwitchOutcome::Kind::kRefused:
      err << item << ": the agent refused: " << outcome.m_iCode << ' ' << outcome.m_strMessage << '\n';
      return kExitRefused;
    default:
      err << outcome.m_strMessage << '\n';
      return kExitRuntimeError;
  }
}

void AddDatabase(CLI::App* command, ReadOptions* options) {
  command->add_option("--db", options->m_strDb, "the control plane's database file")
      ->envname("OVITA2_DB")
      ->required();
}

void AddJson(CLI::App* command, ReadOptions* options) {
  command->add_flag("--json", options->m_bJson, "one JSON object per line instead of a table");
}

void AddSampleFilters(CLI::App* command, ReadOptions* options) {
  command->add_option("--agent", options->m_strAgent, "only samples from this agent");
  options->m_pObject = command->add_option("--object", options->m_uObject, "only samples of this object")
                           ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_option("--name", options->m_strName, "only samples of this name (the job's stat_key)");
}

void AddPolling(CLI::App* command, ReadOptions* options) {
  command->add_option("--interval", options->m_dInterval, "seconds between two looks for new rows (default 1)")
      ->check(Seconds(0, 3600));
}

const char* const kSampleHelp =
    "Columns: TIME (when the control plane received it, local time), AGENT, OBJECT ('-' when the agent could\n"
    "not tell), NAME, VALUE (a number with one decimal, or a text sample on one line with newlines and tabs\n"
    "shown as \\n and \\t). JSON lines: id, received_at, agent, kind (numeric or text), object_id (null when\n"
    "unknown), name, then stat_item, tenths, value (numeric) or job_id, text, sample_time (text).";

CLI::App* AddAgentsCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("agents", "list every agent the control plane has heard from");
  command->footer(
      "Columns: NAME, LAST HEARTBEAT (local time, or 'never'), VERSION, JOBS (job count from the last\n"
      "heartbeat), LAST SEEN (last request of any kind), ADDRESS (IP it last spoke from), NODE PATH.\n"
      "JSON lines: name, last_heartbeat (null when never), version, job_count, last_seen, first_seen,\n"
      "address, node_path; times in seconds since the epoch.");
  AddDatabase(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddSamplesCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("samples", "show the most recent samples, oldest first");
  command->footer(kSampleHelp);
  AddDatabase(command, options);
  AddSampleFilters(command, options);
  command->add_option("--limit", options->m_uLimit, "show at most this many (default 20)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  AddJson(command, options);
  return command;
}

CLI::App* AddFollowCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand(
      "follow", "show the last samples, then new ones as they arrive, until interrupted (Ctrl-C)");
  command->footer(std::string("Waits for the database when it does not exist yet.\n") + kSampleHelp);
  AddDatabase(command, options);
  AddSampleFilters(command, options);
  command->add_option("--last", options->m_uLast, "show this many samples first (default 10)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  AddPolling(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddLinesCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("lines", "show the real-time lines agents sent, oldest first");
  command->footer(
      "Columns: TIME (received, local time), AGENT, LINE (newlines and tabs shown as \\n and \\t).\n"
      "JSON lines: id, received_at, agent, line.");
  AddDatabase(command, options);
  command->add_option("--agent", options->m_strAgent, "only lines from this agent");
  command->add_option("--limit", options->m_uLimit, "show at most this many (default 20)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_flag("--follow", options->m_bFollow, "then show new lines as they arrive, until interrupted");
  AddPolling(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddSwitchCommand(CLI::App& app, const std::string& name, const std::string& description,
                           SwitchOptions* options) {
  CLI::App* command = app.add_subcommand(name, description);
  command->footer(
      "Prints 'item ITEM " + name + "d' when the agent agrees. Exit status 1 when the agent refuses (its code and\n"
      "message on stderr), 2 when it cannot be reached or does not answer properly.");
  command->add_option("ADDRESS", options->m_strAddress, "the agent's listening address, ip:port or [ipv6]:port")
      ->required()
      ->check(kAgentAddress);
  command->add_option("ITEM", options->m_uItem, "the item (an unsigned 32-bit number)")
      ->required()
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_option("--timeout", options->m_dTimeout, "seconds to wait for the answer (default 5)")
      ->check(Seconds(0.001, 3600));
  return command;
}

int Run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app("Reads what the ovita2 control plane stored, and switches an agent's real-time monitoring.",
               "ovita2ctl");
  app.set_version_flag("-V,--version", std::string("ovita2ctl ") + OVITA2_VERSION);
  app.require_subcommand(1);
  app.footer(
      "--db may also come from the OVITA2_DB environment variable. Exit status: 0 success, 1 the agent\n"
      "refused, 2 the database or the network failed.");
  // One set of options per command: each binds its own, and which of them
  // were given (--object, say) is asked of that command's option.
  ReadOptions agentsOptions, samplesOptions, followOptions, linesOptions;
  SwitchOptions enableOptions, disableOptions;
  CLI::App* agents = AddAgentsCommand(app, &agentsOptions);
  CLI::App* samples = AddSamplesCommand(app, &samplesOptions);
  CLI::App* follow = AddFollowCommand(app, &followOptions);
  CLI::App* lines = AddLinesCommand(app, &linesOptions);
  CLI::App* enable =
      AddSwitchCommand(app, "enable", "ask an agent to send an item's output line by line", &enableOptions);
  CLI::App* disable =
      AddSwitchCommand(app, "disable", "ask an agent to stop sending an item's output", &disableOptions);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e, out, err);
  }

  if (agents->parsed()) return ListAgents(agentsOptions, out, err);
  if (samples->parsed()) return ListSamples(samplesOptions, out, err);
  if (follow->parsed()) return FollowSamples(followOptions, followOptions.m_uLast, out, err);
  if (lines->parsed() && linesOptions.m_bFollow) return FollowLines(linesOptions, linesOptions.m_uLimit, out, err);
  if (lines->parsed()) return ListLines(linesOptions, out, err);
  if (enable->parsed()) return SwitchItem(enableOptions, true, out, err);
  if (disable->parsed()) return SwitchItem(disableOptions, false, out, err);
  return 0;
}

}  // namespace

int RunClient(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    return Run(argc, argv, out, err);
  } catch (const std::exception& e) {
    err << "ovita2ctl: " << e.what() << '\n';
  } catch (...) {
    err << "ovita2ctl: unexpected failure\n";
  }
  return kExitRuntimeError;
}

}  // namespace controlplane
