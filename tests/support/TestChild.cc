// qwd_test_child: a monitored process for tests. It connects back to the
// watchdog's channel and behaves as its mode says:
//   qwd_test_child <mode> <socket> [arg]
//   heartbeat [N]    connect, one OK notification with pid N (default: its
//                    own), wait
//   foreign-socket S connect, one OK notification naming socket S, wait
//   fail TEXT        connect, one failure notification with TEXT, wait
//   garbage          connect, a notification of 200 bytes of noise, wait
//   ignore-term      ignore SIGTERM, connect, wait
//   never-connect    wait
//   anything else    connect, then wait
// Waiting ends with SIGTERM (exit status 0) or SIGKILL.
//
// Launched by the watchdog with $QWD_CHILD_PLAN_DIR set, it plays its role (the
// file name it was started under) from $QWD_CHILD_PLAN_DIR: launch N runs
// line N of "<role>.plan" (the last line once past the end), after adding
// its pid and arguments as a line to "<role>.launches". A line is a list of
// steps: hb (one heartbeat), beat (a heartbeat a second, for ever), fail,
// pid N|parent (a heartbeat naming pid N or the watchdog's), cmd ID [U32...], text ID [TEXT] (no
// data when TEXT is absent), exit N, ignore-term, wait. Replies go to "<role>.replies" as
// "<id> <status> <first reply word>". The lines "half", "garbage", "big" and
// "hangup" alone send one raw request (see RawHeader) and wait for its reply;
// "never" waits without connecting.

#include <signal.h>
#include <unistd.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "common/StringUtils.h"
#include "watchdog/MonitoredProcess.h"

namespace {

[[noreturn]] void WaitForSignal() {
  for (;;) pause();
}

void ExitOnTerm(int) { _exit(0); }

StatusCode Heartbeat(IpcChannel& channel, const char* socketName, int32_t pid, bool ok) {
  StatusNotification note{};
  note.ok = ok ? 1 : 0;
  note.pid = pid;
  SafeStrCopy(note.socketName, socketName);
  SafeStrCopy(note.message, "planned failure");
  uint32_t reply = 0;
  return channel.SendCommand(kStatusNotifyCommand, &note, sizeof(note), &reply, sizeof(reply),
                             10000);
}

// The request that a raw line sends past the client: "half" announces data
// and sends none, "garbage" has a wrong magic, "big" a record larger than the
// watchdog takes, "hangup" announces data and ends the process. Null for
// any other line.
const IpcHeader* RawHeader(const std::string& plan) {
  static const IpcHeader kHalf{kIpcMagic, 8, 3};
  static const IpcHeader kGarbage{0x12345678, 0, 3};
  static const IpcHeader kBig{kIpcMagic, 4096, 3};
  if (plan == "half" || plan == "hangup") return &kHalf;
  if (plan == "garbage") return &kGarbage;
  return plan == "big" ? &kBig : nullptr;
}

int RunPlan(int argc, char** argv) {
  const std::string dir =
      std::getenv("QWD_CHILD_PLAN_DIR") ? std::getenv("QWD_CHILD_PLAN_DIR") : ".";
  const std::string role = std::strrchr(argv[0], '/') ? std::strrchr(argv[0], '/') + 1 : argv[0];
  const std::string base = dir + "/" + role;
  std::vector<std::string> lines;
  std::ifstream planFile(base + ".plan");
  for (std::string line; std::getline(planFile, line);) lines.push_back(line);
  size_t launch = 0;
  std::ifstream launches(base + ".launches");
  for (std::string line; std::getline(launches, line);) ++launch;
  std::ofstream(base + ".launches", std::ios::app) << getpid() << [&] {
    std::string args;
    for (int i = 1; i < argc; ++i) args += std::string(" ") + argv[i];
    return args;
  }() << std::endl;
  const std::string plan = lines.empty() ? "wait" : lines[std::min(launch, lines.size() - 1)];

  signal(SIGTERM, ExitOnTerm);
  const char* socketName =
      role == "quillmorSystemExec" ? kSystemExecSocketName : kUserAgentSocketName;
  if (plan == "never") WaitForSignal();
  if (const IpcHeader* header = RawHeader(plan)) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SafeStrCopy(address.sun_path, sizeof(address.sun_path), socketName);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return 3;
    send(fd, header, sizeof(*header), 0);
    if (plan == "hangup") return 0;
    if (plan == "big") send(fd, std::string(header->length, 'x').data(), header->length, 0);
    IpcHeader reply{};
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 5000) == 1 && recv(fd, &reply, sizeof(reply), 0) == sizeof(reply)) {
      std::ofstream(base + ".replies", std::ios::app) << "3 " << reply.commandOrStatus << " 0\n";
    }
    WaitForSignal();
  }
  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  std::istringstream in(plan);
  const std::vector<std::string> steps{std::istream_iterator<std::string>(in), {}};
  auto isNumber = [](const std::string& t) { return !t.empty() && std::isdigit(t[0]); };
  if (plan.rfind("ignore-term", 0) != 0 &&
      (!channel || channel->Connect(false) != StatusCode::SUCCESS)) {
    return 3;
  }
  for (size_t i = 0; i < steps.size(); ++i) {
    const std::string& step = steps[i];
    if (step == "hb" || step == "fail") {
      Heartbeat(*channel, socketName, getpid(), step == "hb");
    } else if (step == "pid") {
      const std::string& pid = steps[++i];
      Heartbeat(*channel, socketName, pid == "parent" ? getppid() : std::atoi(pid.c_str()), true);
    } else if (step == "beat") {
      for (;;) {
        Heartbeat(*channel, socketName, getpid(), true);
        sleep(1);
      }
    } else if (step == "cmd" || step == "text") {
      const int32_t id = std::atoi(steps[++i].c_str());
      std::vector<uint32_t> numbers;
      std::string text;
      while (step == "cmd" && i + 1 < steps.size() && isNumber(steps[i + 1])) {
        numbers.push_back(static_cast<uint32_t>(std::strtoul(steps[++i].c_str(), nullptr, 10)));
      }
      static const std::set<std::string> kSteps = {"hb",   "fail", "pid",         "beat", "cmd",
                                                   "text", "exit", "ignore-term", "wait"};
      if (step == "text" && i + 1 < steps.size() && kSteps.count(steps[i + 1]) == 0) {
        text = steps[++i];
      }
      const void* data = step == "cmd" ? static_cast<const void*>(numbers.data()) : text.c_str();
      const size_t size = step == "cmd" ? numbers.size() * 4 : (text.empty() ? 0 : text.size() + 1);
      uint32_t reply = 0;
      const StatusCode status =
          channel->SendCommand(id, size ? data : nullptr, size, &reply, sizeof(reply), 10000);
      std::ofstream(base + ".replies", std::ios::app)
          << id << " " << static_cast<uint32_t>(status) << " " << reply << std::endl;
    } else if (step == "exit") {
      return std::atoi(steps[++i].c_str());
    } else if (step == "ignore-term") {
      signal(SIGTERM, SIG_IGN);
      if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;
    }
  }
  WaitForSignal();
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("QWD_CHILD_PLAN_DIR") != nullptr) return RunPlan(argc, argv);
  if (argc < 3) {
    std::fprintf(stderr, "usage: qwd_test_child <mode> <socket> [arg]\n");
    return 2;
  }
  const std::string mode = argv[1];
  const char* socketName = argv[2];
  const char* arg = argc > 3 ? argv[3] : "";

  signal(SIGTERM, mode == "ignore-term" ? SIG_IGN : ExitOnTerm);
  if (mode == "never-connect") WaitForSignal();
  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;
  StatusNotification note{};
  note.pid = static_cast<int32_t>(getpid());
  SafeStrCopy(note.socketName, socketName);
  if (mode == "heartbeat") {
    note.ok = 1;
    if (argc > 3) note.pid = std::atoi(arg);
  } else if (mode == "foreign-socket") {
    note.ok = 1;
    SafeStrCopy(note.socketName, arg);
  } else if (mode == "fail") {
    SafeStrCopy(note.message, arg);
  } else if (mode == "garbage") {
    std::memset(&note, 0xA5, sizeof(note));
  } else {
    WaitForSignal();
  }
  uint32_t reply = 0;
  channel->SendCommand(kStatusNotifyCommand, &note, sizeof(note), &reply, sizeof(reply), 10000);
  WaitForSignal();
}
