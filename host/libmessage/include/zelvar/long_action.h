// Long actions: slow work that a machine hands to the host, which runs it away
// from the event loop and delivers a completion record to the machine under the
// flow number it returned when the action was handed over.
//
// A machine builds an action on its stack, sets its parameters and hands it to
// the host; the host copies what it needs (name and parameters) before the hand
// over returns, so the action may be destroyed right after. The completion
// record belongs to the host and is valid only during the handler call that
// receives it.
#ifndef ZELVAR_LONG_ACTION_H
#define ZELVAR_LONG_ACTION_H

#include <cstdint>
#include <map>
#include <string>

#include "zelvar/object.h"

namespace zelvar {

using ParamMap = std::multimap<std::string, std::string>;

class LongActionMethod : public Object {
 public:
  explicit LongActionMethod(std::string name = std::string()) : m_strName(std::move(name)) {}
  // Deletes the owned inner object, then clears the host's map, the
  // parameters and the name, in that order. The forward is not owned.
  ~LongActionMethod() override {
    delete m_pInner;
    m_pInner = nullptr;
    m_mapHostValues.clear();
    m_mapParams.clear();
    m_strName.clear();
  }

  LongActionMethod(const LongActionMethod&) = delete;
  LongActionMethod& operator=(const LongActionMethod&) = delete;

  virtual void Dump(int) {}
  // Runs the action in the calling thread. Every real kind of action overrides
  // it; the base must never run, so it stops the process.
  virtual void Do();

  // Adds one parameter. Values of one key stay in the order of the calls. An
  // action that stands in for another (its forward) passes the call on instead.
  void Param(const std::string& key, const std::string& value) {
    if (m_pForward != nullptr) {
      m_pForward->Param(key, value);
      return;
    }
    m_mapParams.emplace(key, value);  // a multimap inserts after equal keys
  }

  const std::string& Name() const { return m_strName; }
  const ParamMap& Params() const { return m_mapParams; }
  // The first value of `key`, or "" when it has none.
  std::string FirstParam(const std::string& key) const;

  void SetForward(LongActionMethod* forward) { m_pForward = forward; }
  LongActionMethod* Forward() const { return m_pForward; }
  // Takes ownership of a host object that lives and dies with the action.
  void SetInner(Object* inner) {
    delete m_pInner;
    m_pInner = inner;
  }

 protected:
  std::string m_strName;
  ParamMap m_mapParams;
  int64_t m_i64HostValue = 0;
  ParamMap m_mapHostValues;
  Object* m_pInner = nullptr;
  LongActionMethod* m_pForward = nullptr;
};

// The completion record of a long action.
struct LongActionResult {
  // Status values the host uses besides a command's own exit code.
  static constexpr int64_t kStatusSpawnFailed = -1;
  static constexpr int64_t kStatusTimedOut = -2;
  static constexpr int64_t kStatusOutputCut = -3;
  static constexpr int64_t kStatusUnknownAction = -4;
  static constexpr int64_t kSignalBase = 128;  // killed by signal S: 128 + S

  std::string output;  // standard output
  std::string error;   // standard error, or the host's words when it has none
  int64_t status = 0;  // 0 success, anything else failure
  uint32_t flow_no = 0;
};

// A shell command, run as `/bin/sh -c <command>`: the parameter "command" is
// the complete command line.
class ExecuteShell2 : public LongActionMethod {
 public:
  static constexpr const char* kName = "ExecuteShell2";
  static constexpr const char* kCommandParam = "command";

  explicit ExecuteShell2(std::string name = kName) : LongActionMethod(std::move(name)) {}

  // Runs the command to completion in the calling thread and keeps the record
  // in Result(). The host does not call it: it runs the command without
  // blocking its loop. This is the executor of tools and tests.
  void Do() override;
  const LongActionResult& Result() const { return m_sResult; }

 private:
  LongActionResult m_sResult;
};

// The completion record of an AIO request.
struct AioResult {
  int64_t result = 0;  // bytes transferred, 0 for a sync, -1 on failure
  int error = 0;       // errno when result is -1
  uint32_t flow_no = 0;
};

}  // namespace zelvar

#endif  // ZELVAR_LONG_ACTION_H
