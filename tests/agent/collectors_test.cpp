// The built-in collectors (process liveness, kernel log) and kmsgwatch.
#include <signal.h>
#include <sys/klog.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tuple>

#include "agent_test.h"
#include "collectors/kernel_logs_product.h"
#include "collectors/process_monitor_product.h"
#include "local_system.h"

namespace ovita2::testing {
namespace {

using Collectors = AgentTest;

// "/bin/sh <dir>/<name>" in a group of its own until destroyed, seen in /proc once constructed.
struct ScriptProcess {
  ScriptProcess(const TempDir& dir, const std::string& name) {
    std::string path = dir.Write(name, "while :; do sleep 1; done\n");
    pid = fork();
    if (pid == 0) setpgid(0, 0), execl("/bin/sh", "sh", path.c_str(), static_cast<char*>(nullptr)), _exit(127);
    std::string cmdline = "/proc/" + std::to_string(pid) + "/cmdline";
    Eventually([&] { return ReadFile(cmdline).find(name) != std::string::npos; }, 2);
  }
  ~ScriptProcess() { kill(-pid, SIGKILL), waitpid(pid, nullptr, 0); }
  pid_t pid;
};

std::string RunOnce(ProcessMonitorProduct* product, const std::string& target, const std::string& parameter) {
  zelvar::ovita2::ConfObject conf;
  conf.set_target(target), conf.set_parameter(parameter);
  product->setAttribute(&conf);
  return product->operation();
}

TEST_F(Collectors, ProcessesMatchByParameterBitsAndAMissingOneIsToldOnEveryRunAndItsReturnOnce) {
  TempDir dir;
  std::string unique = std::to_string(getpid());
  ScriptProcess script(dir, "Ovita2Watched" + unique + ".sh");
  const std::tuple<std::string, const char*, bool> cases[] = {
      {"watched" + unique, "0", true},         {"watched" + unique, "1", false},
      {"Watched" + unique, "1", true},         {"ovita2watched" + unique + ".sh", "2", true},
      {"Ovita2Watched" + unique, "2", false},  {"ovita2watched" + unique + ".sh", "3", false},
      {"Ovita2Watched" + unique + ".sh", "3", true}, {dir.Path().substr(5), "0", false}};
  for (const auto& [target, parameter, found] : cases) {
    ProcessMonitorProduct product;
    RunOnce(&product, target, parameter);
    EXPECT_EQ(product.getPIDByName(target.c_str()), found ? script.pid : -1) << target << " " << parameter;
  }

  const std::string name = "Ovita2Back" + unique + ".sh";
  auto run = [&] { return RunOnce(std::make_unique<ProcessMonitorProduct>().get(), name, "3"); };
  for (int missing = 0; missing < 3; ++missing) EXPECT_EQ(run(), name + ":-1");
  ScriptProcess back(dir, name);
  EXPECT_EQ(run(), name + ":" + std::to_string(back.pid));
  EXPECT_EQ(run(), "");
}

std::string g_ringBuffer;
int ReadTestRing(char* buffer, int length) {
  if (g_ringBuffer == "fail") return -1;
  g_ringBuffer.copy(buffer, length);
  return static_cast<int>(g_ringBuffer.size());
}
time_t At17Utc(time_t*) { return 1699982000; }  // 2023-11-14 17:13:20 UTC

TEST_F(Collectors, KernelLinesAreFilteredByLevelAndWordsResumeAfterTheLastLineThatPassedAndComeFromTheKernel) {
  KernelLogsProduct::s_pfnReadRingBuffer = ReadTestRing;
  KernelLogsProduct::s_pfnNow = At17Utc;
  utsname names;
  uname(&names);
  std::string head = std::string("2023-11-14 25:13:20\n") + names.nodename + "\n" + names.release + "\n" +
                     names.version + "\n" + names.machine + "\n";
  const std::pair<const char*, const char*> runs[] = {
      {"<3>disk fail\n<6>info\nplain line\n<4>chatty thing\n", "<3>disk fail\nplain line\n"},
      {"<3>disk fail\n<6>info\nplain line\n<4>chatty thing\n", ""},
      {"plain line\n<3>next\n", "plain line\n<3>next\n"},  // the ignored line was the resume point
      {"<3>next\n<5>x\n<3>next\n<3>last\n", "<3>last\n"},
      {"fail", ""}};
  for (const auto& [ring, lines] : runs) {
    g_ringBuffer = ring;
    KernelLogsProduct product;
    zelvar::ovita2::ConfObject conf;
    conf.set_target("noisy|chatty"), conf.set_parameter("4");
    product.setAttribute(&conf);
    EXPECT_EQ(product.operation(), *lines != '\0' ? head + lines : "") << ring;
  }
  static char probe[KernelLogsProduct::kLogBufferSize];
  if (klogctl(3, probe, sizeof probe) <= 0) GTEST_SKIP() << "the kernel ring buffer cannot be read here";
  KernelLogsProduct::ResetSharedState();  // the real ring buffer, every level
  KernelLogsProduct product;
  zelvar::ovita2::ConfObject conf;
  conf.set_parameter("7");
  product.setAttribute(&conf);
  EXPECT_NE(product.operation().find(names.nodename), std::string::npos);
}

TEST_F(Collectors, TheFactoryMakesTypesOneAndTwoAndLogsAnyOtherType) {
  SimpleDataCollectionFactory factory;
  for (int type : {0, 1, 2, 3}) {
    host_.ClearLog();
    std::unique_ptr<DataCollectionProduct> product(factory.createProduct(type));
    EXPECT_EQ(dynamic_cast<ProcessMonitorProduct*>(product.get()) != nullptr, type == 1);
    EXPECT_EQ(dynamic_cast<KernelLogsProduct*>(product.get()) != nullptr, type == 2);
    EXPECT_EQ(host_.Logged("createProduct type error"), product == nullptr) << type;
  }
}

TEST(Kmsgwatch, CountsNewPiecesWithTheKeywordFromTheSavedPositionOrTheEndOfAShorterFile) {
  TempDir dir;
  std::string longLine =
      std::string(1021, 'a') + "ERR" + std::string(1000, 'b') + "ERR" + std::string(30, 'c') + "ERR\n";
  const std::tuple<const char*, const char*, std::string, std::string> steps[] = {
      {"", "", "", "Usage: ./kmsgwatch keyword targetfile \n1"},
      {"ERR", "log", "a\nERR 1\nb\nc ERR\nd\ne\nf\ng\nh\nERR\n", "3\n0"},
      {"ERR", "log", "", "0\n0"},
      {"ERR", "log", "ERR\nERR\n", "0\n0"},  // shorter than the saved position: read from its new end
      {"ERR", "log", "ERR\nERR\nx ERR\n", "1\n0"},
      {"ERR", "sub/long", longLine, "2\n0"}};  // one line in three pieces, the first ERR cut by their boundary
  mkdir((dir.Path() + "/sub").c_str(), 0700);
  for (const auto& [keyword, file, text, outputAndStatus] : steps) {
    if (!text.empty()) dir.Write(file, text);
    std::string args = *keyword != '\0' ? std::string(keyword) + " " + dir.Path() + "/" + file : "";
    FILE* pipe = popen(("cd " + dir.Path() + " && " KMSGWATCH_PATH " " + args).c_str(), "r");
    char output[128] = "";
    size_t length = fread(output, 1, sizeof output - 1, pipe);
    int status = pclose(pipe);
    EXPECT_EQ(std::string(output, length) + std::to_string(WEXITSTATUS(status)), outputAndStatus) << file;
  }
  std::string position = "ERR" + dir.Path() + "/sub/long_pos.txt";
  std::replace(position.begin(), position.end(), '/', '-');
  EXPECT_EQ(ReadFile(dir.Path() + "/" + position), std::to_string(longLine.size()));
}

}  // namespace
}  // namespace ovita2::testing
