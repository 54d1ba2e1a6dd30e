#include "common/zk_answer.h"

namespace zelvar::registry {

ZKPluginResponse* ErrorAnswer(int retcode) {
  auto* answer = new ZKPluginResponse();
  answer->type = ZKPluginResponse::T_VOID;
  answer->retcode = retcode;
  const char* text = zerror(retcode);
  answer->error_message = text != nullptr ? text : "unknown error";
  return answer;
}

ZKPluginResponse* CreatedAnswer(const std::string& createdPath) {
  auto* answer = new ZKPluginResponse();
  answer->type = ZKPluginResponse::T_STRING;
  answer->flags = ZKPluginResponse::kHasString;
  answer->string = createdPath;
  return answer;
}

ZKPluginResponse* DataAnswer(const std::string& data, const Stat& stat) {
  auto* answer = new ZKPluginResponse();
  answer->type = ZKPluginResponse::T_DATA;
  answer->flags = ZKPluginResponse::kHasString | ZKPluginResponse::kHasData | ZKPluginResponse::kHasStat;
  answer->string = data;
  answer->stat = stat;
  return answer;
}

ZKPluginResponse* ChildrenAnswer(const Stat& parentStat) {
  auto* answer = new ZKPluginResponse();
  answer->type = ZKPluginResponse::T_KEYVALUES;
  answer->flags = ZKPluginResponse::kHasStat | ZKPluginResponse::kHasKeyValues;
  answer->stat = parentStat;
  return answer;
}

}  // namespace zelvar::registry
