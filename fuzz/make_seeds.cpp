// Writes the seed corpora of the binary readers, one folder per target under
// the folder given, with the project's own encoders: valid frames and node
// data, so that fuzzing starts from what the peers really send.
#include <google/protobuf/text_format.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "zelvar/frame.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace {

namespace ov = zelvar::ovita2;

// A request of `type` whose body is given as text.
zelvar::ZMessage Asking(int type, const std::string& body) {
  zelvar::ZMessage message;
  zelvar::NewMessage(&message, 3, "5f1c0c9e-session", type, 0, false, 12, 0, nullptr, nullptr, nullptr);
  google::protobuf::TextFormat::ParseFromString(body, message.mutable_body());
  return message;
}

void Write(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string root = argv[1];
  const std::string ovita = "[zelvar.ovita2.", tellar = "[zelvar.tellar2.";
  const zelvar::ZMessage asked = Asking(66012, ovita + "enable_real_time_monitor_request] { item_id: 1 operation: 0 }");
  const std::string enable = zelvar::EncodeFrame(asked), disable = zelvar::EncodeFrame(Asking(66012, ovita +
      "enable_real_time_monitor_request] { item_id: 1 operation: 1 }"));
  Write(root + "/agent_data_in/enable", enable);
  Write(root + "/agent_data_in/enable-disable", enable + disable);
  Write(root + "/agent_data_in/half", enable.substr(0, enable.size() / 2));
  for (int code : {0, 1}) {
    zelvar::ZMessage answer;
    zelvar::MakeResponse(asked, ov::ENABLE_REAL_TIME_MONITOR_RESPONSE, &answer);
    auto* rc = answer.mutable_body()->MutableExtension(ov::enable_real_time_monitor_response)->mutable_rc();
    rc->set_code(code), rc->set_msg(code == 0 ? "" : "item 1 is not enabled");
    Write(root + "/agent_answer/code-" + std::to_string(code), zelvar::EncodeFrame(answer));
  }
  zelvar::kadri::NameNodeContent node;
  node.set_ip("127.0.0.1"), node.set_port(7100);
  Write(root + "/node_data/endpoint", node.SerializeAsString());
  // One request of each kind the control plane serves, the demo agent asking.
  const std::vector<std::pair<int, std::string>> requests = {
      {67000, ovita + "get_task_queue_request] { node_path: '/ovita2/names/AGENT/demo' }"},
      {66000, ovita + "get_aggregation_request] { node_path: '/ovita2/names/AGENT/demo' }"},
      {68000, ovita + "get_job_request] { agent_name: 'demo' }"},
      {68010, ovita + "get_conf_request] { agent_name: 'demo' conf_type: 1 }"},
      {66015, ovita + "agent_heart_beat_request] { agent_name: 'demo' version: '1.0' job_count: 4 }"},
      {61030, tellar + "record_stats_request] { stats { name: 'load' object_id: 1 stat_item: 11 value: 42 } }"},
      {61032, tellar + "record_string_stats_request] { stats { name: 'kernel' job_id: 2 value: 'Linux' time: 9 } }"},
      {66014, ovita + "send_real_time_buff_request] { line: 'kernel: disk error' }"},
  };
  std::string connection;
  for (const auto& request : requests) {
    const std::string frame = zelvar::EncodeFrame(Asking(request.first, request.second));
    Write(root + "/controlplane_request/" + std::to_string(request.first), frame);
    connection += frame;
  }
  Write(root + "/controlplane_request/connection", connection);
  Write(root + "/kmsgwatch_position/from-start", "0\nkernel: error on sda\nall fine\nerror again\n");
  Write(root + "/kmsgwatch_position/long-line", "12\n" + std::string(1020, 'x') + "error\nerror\n");
  return 0;
}
