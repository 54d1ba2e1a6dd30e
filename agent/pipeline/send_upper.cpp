// SendUpperMachine: sends the queued numeric and text samples to the aggregation service, and empties the queues.
#include "pipeline/send_upper.h"

#include "framework/machine_registration.h"
#include "naming/update_aggregation.h"
#include "pipeline/stats_queues.h"
#include "zelvar/message_util.h"
#include "zelvar/tellar2.pb.h"

OVITA2_MACHINE_CREATORS(SendUpper)
OVITA2_MACHINE_STATE(SendUpper, Init)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(SendUpperMachine::kType, SendUpperCreateMySelf, SendUpperCreateMySelfByAddr)
        .Routine(SendUpperCreateMySelfForRoutine, kRoutineSendUpper, 10)
        .State(-1, SendUpperMachineEntry_Init, "Entry_Init");

namespace {

// The two requests live from one tick to the next and are cleared, not freed:
// protobuf keeps cleared samples and the capacity of their strings, so a tick
// refills the objects of the last one. Built afresh, ten thousand samples
// were freed after every send together with the serialised blocks above
// them; glibc then handed the top of the heap back to the system and the
// next tick faulted it all in again. What stays held is the largest tick's
// request.
zelvar::ZMessage& KeptRequest(unsigned type) {
  static zelvar::ZMessage numeric;
  static zelvar::ZMessage text;
  zelvar::ZMessage& message = type == SendUpperMachine::kStatsRequestType ? numeric : text;
  message.Clear();
  return message;
}

}  // namespace

int SendUpperMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (!g_vecUpper.empty()) sendInt64Upper();
  if (!g_vecStringUpper.empty()) sendStringUpper();
  return zelvar::kMachineDone;
}

void SendUpperMachine::sendInt64Upper() {
  zelvar::ZMessage& message = KeptRequest(kStatsRequestType);
  NewRequest(&message, kStatsRequestType);
  auto* request = message.mutable_body()->MutableExtension(zelvar::tellar2::record_stats_request);
  if (g_vecUpper.empty()) return;
  request->mutable_stats()->Reserve(static_cast<int>(g_vecUpper.size()));
  for (const _stats_info& sample : g_vecUpper) {
    zelvar::tellar2::StatsData* data = request->add_stats();
    data->set_name(sample.name);
    data->set_object_id(sample.object_id);
    data->set_stat_item(sample.stat_item);
    data->set_value(sample.value);
  }
  SendRequest(message, g_strAggrIP.c_str(), static_cast<unsigned>(g_iAggrPort), 0);
  g_vecUpper.clear();
}

void SendUpperMachine::sendStringUpper() {
  zelvar::ZMessage& message = KeptRequest(kStringStatsRequestType);
  NewRequest(&message, kStringStatsRequestType);
  auto* request = message.mutable_body()->MutableExtension(zelvar::tellar2::record_string_stats_request);
  if (g_vecStringUpper.empty()) return;
  request->mutable_stats()->Reserve(static_cast<int>(g_vecStringUpper.size()));
  for (const string_stats_info_st& sample : g_vecStringUpper) {
    zelvar::tellar2::StringStatsData* data = request->add_stats();
    data->set_name(sample.name);
    data->set_job_id(sample.job_id);
    data->set_value(sample.value);
    data->set_time(static_cast<uint32_t>(sample.time));
  }
  SendRequest(message, g_strAggrIP.c_str(), static_cast<unsigned>(g_iAggrPort), 0);
  g_vecStringUpper.clear();
}
