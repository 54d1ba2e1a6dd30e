// Writes the seed corpora of the binary readers, one folder per target under
// the folder given, with the project's own encoders: valid frames and node
// data, so that fuzzing starts from what the peers really send.
#include <fstream>
#include <string>

#include "zelvar/frame.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

namespace {

namespace ov = zelvar::ovita2;

zelvar::ZMessage Request(int type) {
  zelvar::ZMessage message;
  zelvar::NewMessage(&message, 3, "5f1c0c9e-session", type, 0, false, 12, 0, nullptr, nullptr, nullptr);
  return message;
}

zelvar::ZMessage Switch(uint32_t operation) {
  zelvar::ZMessage message = Request(ov::ENABLE_REAL_TIME_MONITOR_REQUEST);
  auto* asked = message.mutable_body()->MutableExtension(ov::enable_real_time_monitor_request);
  asked->set_item_id(1), asked->set_operation(operation);
  return message;
}

void Write(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string root = argv[1];
  const std::string enable = zelvar::EncodeFrame(Switch(0)), disable = zelvar::EncodeFrame(Switch(1));
  Write(root + "/agent_data_in/enable", enable);
  Write(root + "/agent_data_in/enable-disable", enable + disable);
  Write(root + "/agent_data_in/half", enable.substr(0, enable.size() / 2));
  for (int code : {0, 1}) {
    zelvar::ZMessage answer;
    zelvar::MakeResponse(Switch(0), ov::ENABLE_REAL_TIME_MONITOR_RESPONSE, &answer);
    auto* rc = answer.mutable_body()->MutableExtension(ov::enable_real_time_monitor_response)->mutable_rc();
    rc->set_code(code), rc->set_msg(code == 0 ? "" : "item 1 is not enabled");
    Write(root + "/agent_answer/code-" + std::to_string(code), zelvar::EncodeFrame(answer));
  }
  zelvar::kadri::NameNodeContent node;
  node.set_ip("127.0.0.1"), node.set_port(7100);
  Write(root + "/node_data/endpoint", node.SerializeAsString());
  return 0;
}
