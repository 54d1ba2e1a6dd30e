// The built-in collectors, behind a small abstract factory.
//
// The configured-collector machine asks the factory for a collector (a
// product) of a numeric collector type, hands it the configuration it runs
// for, asks it for one measurement as text and deletes it:
//
//   createProduct(type) -> setAttribute(conf) -> operation() -> delete
//
// An empty result means nothing worth reporting. Types known today: 1, the
// process monitor (ProcessMonitorProduct), and 2, the kernel log collector
// (KernelLogsProduct). Products live for one run and are owned by the caller,
// which deletes them through the base class. Factories hold no state.
//
// Event-loop thread only: collectors keep process-wide state between runs.
#ifndef OVITA2_AGENT_COLLECTORS_DATA_COLLECTION_H
#define OVITA2_AGENT_COLLECTORS_DATA_COLLECTION_H

#include <string>

#include "zelvar/ovita2.pb.h"

class DataCollectionProduct {
 public:
  virtual ~DataCollectionProduct() = default;
  // One measurement; "" when there is nothing to report.
  virtual std::string operation() = 0;
  // Copies what the collector needs out of `conf`; called once, before operation().
  virtual void setAttribute(const zelvar::ovita2::ConfObject* conf) = 0;
};

class DataCollectionFactory {
 public:
  virtual ~DataCollectionFactory() = default;
  // A new collector of `type`, or null when the type is unknown.
  virtual DataCollectionProduct* createProduct(int type) = 0;
};

class SimpleDataCollectionFactory : public DataCollectionFactory {
 public:
  static constexpr int kProcessMonitor = 1;
  static constexpr int kKernelLogs = 2;

  // Null, with the level-4 line "createProduct type error", for an unknown type.
  DataCollectionProduct* createProduct(int type) override;
};

#endif  // OVITA2_AGENT_COLLECTORS_DATA_COLLECTION_H
