// ExecuteJobsOfConfMachine: runs the configured built-in collectors.
#include "jobs/execute_jobs_of_conf.h"

#include <memory>

#include "collectors/data_collection.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "jobs/job_conf_container.h"
#include "pipeline/stats_queues.h"

bool ExecuteJobsOfConfMachine::m_bRunning = false;

OVITA2_MACHINE_CREATORS(ExecuteJobsOfConf)
OVITA2_MACHINE_STATE(ExecuteJobsOfConf, Init)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(ExecuteJobsOfConfMachine::kType, ExecuteJobsOfConfCreateMySelf,
                                ExecuteJobsOfConfCreateMySelfByAddr)
        .Routine(ExecuteJobsOfConfCreateMySelfForRoutine, kRoutineExecuteJobsOfConf, 300)
        .State(-1, ExecuteJobsOfConfMachineEntry_Init, "Entry_Init");

int ExecuteJobsOfConfMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (m_bRunning) return zelvar::kMachineDone;
  m_bRunning = true;
  SimpleDataCollectionFactory factory;
  for (auto& [type, targets] : JobConfContainer::Instance()->GetJobConfs()) {
    for (auto& [target, lastRun] : targets) RunCollector(&factory, type, target, &lastRun);
  }
  m_bRunning = false;
  return zelvar::kMachineDone;
}

void ExecuteJobsOfConfMachine::RunCollector(DataCollectionFactory* factory, uint32_t type, const std::string& target,
                                            uint32_t* lastRun) {
  const zelvar::ovita2::ConfObject* conf = JobConfContainer::Instance()->GetJobConfDefine(target);
  if (conf == nullptr) return;
  int64_t now = ovita2::HostNow();
  // Summed in 32 bits, as the times are kept.
  if (static_cast<uint32_t>(*lastRun + kMinRunDistanceSec) > now) return;
  *lastRun = static_cast<uint32_t>(now);

  std::unique_ptr<DataCollectionProduct> product(factory->createProduct(static_cast<int>(type)));
  if (product == nullptr) {
    ovita2::MachineLog(4, this, "product is NULL,type:%u", type);
    return;
  }
  product->setAttribute(conf);
  std::string value = product->operation();
  auto collectedAt = static_cast<uint64_t>(ovita2::HostNow());
  product.reset();

  ovita2::MachineLog(1, this, "product operation value: %s|type: %d;", value.c_str(), static_cast<int>(type));
  if (value.empty()) return;
  g_vecStringUpper.push_back(
      string_stats_info_st{ovita2::HostConfigString("common", "agentname"), type, std::move(value), collectedAt});
}
