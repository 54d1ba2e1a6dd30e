// The collector factory: collector type -> a new product.
#include "collectors/data_collection.h"

#include "collectors/kernel_logs_product.h"
#include "collectors/process_monitor_product.h"
#include "framework/host_api.h"

DataCollectionProduct* SimpleDataCollectionFactory::createProduct(int type) {
  switch (type) {
    case kProcessMonitor:
      return new ProcessMonitorProduct();
    case kKernelLogs:
      return new KernelLogsProduct();
    default:
      // The caller logs the type along with its own context.
      ovita2::HostLog(4, "createProduct type error");
      return nullptr;
  }
}
